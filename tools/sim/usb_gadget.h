/*
 * A USB gadget that plays the accessory on a real kernel: a configfs gadget with one ACM
 * function, whose gadget-side terminal (/dev/ttyGSn) carries the accessory's lines, and whose
 * binding to a UDC (a dummy_hcd controller on a desk) is the cable: bound, the host side's
 * cdc-acm driver makes the phone's /dev/ttyACMn; unbound, it hangs that terminal up and removes
 * the node. The gadget lives in the kernel's own configfs and /dev, never in a sandbox: the
 * module under test sees it through a sandbox whose dev and sys lead to the real ones.
 * Stateless helpers; the caller serialises calls on one gadget.
 */
#ifndef ATCMD_TOOLS_SIM_USB_GADGET_H
#define ATCMD_TOOLS_SIM_USB_GADGET_H

#include <stdint.h>

#include <string>
#include <vector>

namespace atcmd_tools {

// The accessory's ids, as its uevent's PRODUCT line shows them (vendor/product/release).
constexpr uint16_t kAccessoryVendor = 0x7a1d;
constexpr uint16_t kAccessoryProduct = 0x5101;
constexpr uint16_t kAccessoryRelease = 0x0100;

struct UsbGadget {
    std::string dir;  // /sys/kernel/config/usb_gadget/<name>; empty when not made
    std::string udc;  // the controller that binding plugs it into
    int port = -1;    // n of the gadget-side terminal /dev/ttyGSn
};

// Why gadgets cannot be made here ("" when they can): configfs's usb_gadget directory and at
// least one UDC must exist.
std::string usb_gadget_unavailable();
// The UDCs by name, sorted ("dummy_udc.0", "dummy_udc.1").
std::vector<std::string> usb_udcs();

// Makes (unbound) the gadget `name` with the ids and one ACM function, to be bound to `udc`.
// False with the reason in *error; whatever was made is removed again.
bool usb_gadget_make(const std::string &name, uint16_t vendor, uint16_t product, uint16_t release,
                     const std::string &udc, UsbGadget *out, std::string *error);
// Plugs the gadget: binds it to its UDC.
bool usb_gadget_bind(const UsbGadget &g, std::string *error);
// Unplugs it: unbinds it (nothing to do when it is not bound).
bool usb_gadget_unbind(const UsbGadget &g, std::string *error);
bool usb_gadget_bound(const UsbGadget &g);
// Unbinds and removes the gadget's configfs entries; *g is cleared.
void usb_gadget_remove(UsbGadget *g);
// "/dev/ttyGSn".
std::string usb_gadget_tty(const UsbGadget &g);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_USB_GADGET_H
