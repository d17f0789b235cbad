/*
 * One AT line handed to the module (AtCmder_t in atcmdprocess/atcmdprocess.h). The module stamps
 * the time itself.
 */
package vendor.quorvanta.atcmd;

@VintfStability
parcelable AtCmdRecord {
    /** AT_TYPE_*, 0..255. */
    int type;
    /** AT_NODE_*, 0..255. */
    int source;
    /** AT_NODE_*, 0..255. */
    int dest;
    /** The platform that originates the exchange (the number after "&"), 0..255. */
    int flag;
    /** 0..255. */
    int resendTimes;
    /** The keyword table's row (AT_MSG_*), 0..255. */
    int cmdId;
    /** The number after "#"; 0 means none. 0..65535. */
    int seqNum;
    /** The AT line with its "\r\n", shorter than 160 bytes. */
    String line;
}
