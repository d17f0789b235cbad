/*
 * The link state the device object holds (system_status and the USB pair of
 * atcmdprocess_device in atcmdprocess/atcmdprocess.h).
 */
package vendor.quorvanta.atcmd;

@VintfStability
parcelable AtCmdStatus {
    /** PLATFORM_VUART (1) or PLATFORM_UART (2). */
    int platform;
    /** AT_MODE_NONE (-1), AT_MODE_USB (0) or AT_MODE_WIFI (1). */
    int mode;
    /** 1 while a Wi-Fi connection is wanted, 0 after a disconnect, -1 before any. */
    int wifiStatus;
    /** 1 "IDLE", 2 "ACTIVE". */
    int phoneState;
    int usbStatus;
    int usbConnected;
}
