/*
 * The module's notify messages, delivered to the registered client. One-way: the module's
 * threads hand a message over and never wait for the client.
 */
package vendor.quorvanta.atcmd;

import vendor.quorvanta.atcmd.AtCmdMessage;

@VintfStability
oneway interface IAtCmdCallback {
    /** One notify message, copied when the module sent it. */
    void onMessage(in AtCmdMessage message);
}
