/*
 * The accessory link's hardware module, served by vendor.atcmd-service. One method per device
 * operation of the module; every result is the module's own return code (0 for success).
 *
 * Closing ends the service. close() closes the device, which ends the whole service process;
 * the caller gets a dead-object status (STATUS_DEAD_OBJECT), never a reply, and every other
 * client's next call gets the same. init starts the service again with a fresh module. To come
 * back, a client links to the binder's death (AIBinder_linkToDeath), then calls
 * AServiceManager_waitForService("vendor.quorvanta.atcmd.IAtCmd/default") and registers its
 * callback again: nothing of the old service, its callback included, survives.
 */
package vendor.quorvanta.atcmd;

import vendor.quorvanta.atcmd.AtCmdRecord;
import vendor.quorvanta.atcmd.AtCmdStatus;
import vendor.quorvanta.atcmd.IAtCmdCallback;

@VintfStability
interface IAtCmd {
    /**
     * Registers the one client that receives the module's messages. The same callback may
     * register again. While another client's callback is registered and alive the call fails
     * with EX_ILLEGAL_STATE; when that client dies the service drops its callback, and the next
     * client may register.
     */
    void setCallback(in IAtCmdCallback callback);

    /** Drops `callback` if it is the registered one; any other is ignored. */
    void clearCallback(in IAtCmdCallback callback);

    /**
     * Hands one AT line to the module to send (atcmdprocess_cmd_from_hidl). The record's
     * numbers must fit the module's fields (type, source, dest, flag, resendTimes, cmdId:
     * 0..255; seqNum: 0..65535) and `line` must be shorter than 160 bytes with its "\r\n";
     * anything else fails with EX_ILLEGAL_ARGUMENT and is not sent.
     */
    int sendCommand(in AtCmdRecord record);

    /** Starts the Wi-Fi link's helper daemon with this address (atcmdprocess_wifi_init). */
    int wifiInit(in String ipAddress);

    /** A Wi-Fi state change; 0 (disconnect) stops the link (atcmdprocess_wifi_stchange). */
    int wifiStateChange(int state);

    /** Relays one status word of the Wi-Fi helper daemon (atcmdprocess_hiddemon_stchange). */
    int daemonStatusChange(in String status);

    /** Asks the module to shake hands with the accessory (atcmdprocess_amlogic_shake_hands). */
    int shakeHands();

    /**
     * Hands this phone's Bluetooth address to the module, which sends it to the accessory when
     * it cannot read it from the system itself. "XX:XX:XX:XX:XX:XX" in hexadecimal; the
     * placeholder 02:00:00:00:00:00 and anything malformed fail with EX_ILLEGAL_ARGUMENT.
     */
    void setBluetoothAddress(in String address);

    /** The device object's link state, as the module holds it now. */
    AtCmdStatus getStatus();

    /**
     * Closes the device, which ends the service process: this call never returns a reply (the
     * caller sees a dead-object status). See the comment at the top for how to come back.
     */
    void close();
}
