/*
 * The accessory as a configfs USB gadget with one ACM function (see usb_gadget.h). Only the
 * calling thread touches a gadget; the kernel does the rest.
 */
#include "sim/usb_gadget.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "sim/sim_util.h"

namespace atcmd_tools {

namespace {

constexpr const char kGadgetRoot[] = "/sys/kernel/config/usb_gadget";
constexpr const char kUdcClass[] = "/sys/class/udc";
constexpr const char kFunction[] = "functions/acm.usb0";
constexpr const char kConfig[] = "configs/c.1";
constexpr const char kStrings[] = "strings/0x409";

std::string hex4(uint16_t v) {
    char text[8];
    snprintf(text, sizeof text, "0x%04x", v);
    return text;
}

std::string read_small(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return trim_line_end(ss.str());
}

// configfs attributes take one write of the whole value.
bool put(const std::string &path, const std::string &value, std::string *error) {
    if (write_text_file(path, value + "\n")) return true;
    if (error != nullptr) *error = "cannot write " + path + ": " + strerror(errno);
    return false;
}

bool make_dir(const std::string &path, std::string *error) {
    if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
    if (error != nullptr) *error = "cannot make " + path + ": " + strerror(errno);
    return false;
}

}  // namespace

std::vector<std::string> usb_udcs() {
    std::vector<std::string> names;
    DIR *d = opendir(kUdcClass);
    if (d == nullptr) return names;
    while (const struct dirent *e = readdir(d)) {
        if (e->d_name[0] != '.') names.emplace_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::string usb_gadget_unavailable() {
    struct stat st;
    if (stat(kGadgetRoot, &st) != 0) {
        return std::string(kGadgetRoot) + " is missing (configfs not mounted, or libcomposite not loaded)";
    }
    if (usb_udcs().empty()) return "no UDC in /sys/class/udc (dummy_hcd not loaded)";
    return "";
}

bool usb_gadget_make(const std::string &name, uint16_t vendor, uint16_t product, uint16_t release,
                     const std::string &udc, UsbGadget *out, std::string *error) {
    UsbGadget g;
    g.dir = std::string(kGadgetRoot) + "/" + name;
    g.udc = udc;
    if (!make_dir(g.dir, error)) return false;
    const std::string fn = g.dir + "/" + kFunction, cfg = g.dir + "/" + kConfig;
    const bool made =
        put(g.dir + "/idVendor", hex4(vendor), error) && put(g.dir + "/idProduct", hex4(product), error) &&
        put(g.dir + "/bcdDevice", hex4(release), error) && make_dir(g.dir + "/" + kStrings, error) &&
        put(g.dir + "/" + kStrings + "/manufacturer", "atcmd desk", error) &&
        put(g.dir + "/" + kStrings + "/product", "accessory " + name, error) &&
        put(g.dir + "/" + kStrings + "/serialnumber", name, error) && make_dir(cfg, error) &&
        make_dir(fn, error);
    if (made && symlink(fn.c_str(), (cfg + "/acm.usb0").c_str()) != 0 && errno != EEXIST) {
        if (error != nullptr) *error = "cannot link " + fn + " into " + cfg + ": " + strerror(errno);
        usb_gadget_remove(&g);
        return false;
    }
    long port = -1;
    if (!made || !parse_number(read_small(fn + "/port_num"), 0, 255, &port)) {
        if (made && error != nullptr) *error = "no port number in " + fn + "/port_num";
        usb_gadget_remove(&g);
        return false;
    }
    g.port = static_cast<int>(port);
    *out = g;
    return true;
}

bool usb_gadget_bind(const UsbGadget &g, std::string *error) {
    return put(g.dir + "/UDC", g.udc, error);
}

bool usb_gadget_unbind(const UsbGadget &g, std::string *error) {
    // An unbound gadget refuses the empty name (ENODEV): nothing is plugged, nothing to do.
    return !usb_gadget_bound(g) || put(g.dir + "/UDC", "", error);
}

bool usb_gadget_bound(const UsbGadget &g) {
    return !g.dir.empty() && !read_small(g.dir + "/UDC").empty();
}

void usb_gadget_remove(UsbGadget *g) {
    if (g->dir.empty()) return;
    usb_gadget_unbind(*g, nullptr);
    // configfs takes its entries apart in the opposite order of their making.
    unlink((g->dir + "/" + kConfig + "/acm.usb0").c_str());
    rmdir((g->dir + "/" + kConfig).c_str());
    rmdir((g->dir + "/" + kFunction).c_str());
    rmdir((g->dir + "/" + kStrings).c_str());
    rmdir(g->dir.c_str());
    *g = UsbGadget{};
}

std::string usb_gadget_tty(const UsbGadget &g) { return "/dev/ttyGS" + std::to_string(g.port); }

}  // namespace atcmd_tools
