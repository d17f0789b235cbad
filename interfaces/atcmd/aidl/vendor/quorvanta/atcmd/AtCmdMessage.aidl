/*
 * One notify message of the module (AT_CMD_CbMsg_t in atcmdprocess/atcmdprocess.h), copied: the
 * module's message lives only during its call, so the value it points to travels by value here.
 */
package vendor.quorvanta.atcmd;

@VintfStability
parcelable AtCmdMessage {
    /** The keyword table's row the message concerns (AT_MSG_* in atcmdprocess.h), 0..65535. */
    int msgId;
    /** The sequence number of the record that caused it, 0..65535. */
    int seqNum;
    /** False when the module's message pointed to nothing. */
    boolean hasData;
    /**
     * What the message pointed to, in the module's layout and this device's byte order: 32-bit
     * integers, a NUL-terminated text, or the 256-byte version block, by msgId.
     */
    byte[] data;
}
