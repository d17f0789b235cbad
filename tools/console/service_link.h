/*
 * One module per phone: where the device declares vendor.atcmd-service, the service hosts the
 * module and nothing else may open a second one beside it. On the phone the console then becomes
 * the service's client (the device object it drives forwards each operation through IAtCmd);
 * on the desk, where there is no binder, it refuses. Otherwise the console loads the module
 * itself. Main thread; on the phone the callback arrives on binder threads.
 */
#ifndef ATCMD_TOOLS_CONSOLE_SERVICE_LINK_H
#define ATCMD_TOOLS_CONSOLE_SERVICE_LINK_H

#include <string>

#include "console/loader.h"

namespace atcmd_tools {

// Whether the device declares the service's instance. On the phone: the service manager's VINTF
// declaration (AServiceManager_isDeclared: declared, not merely registered, since after each
// close the name is gone until init restarts the service). On the desk: the VINTF manifest
// fragments under (ATCMD_ROOT)/vendor/etc/vintf/manifest/, as the service manager reads them;
// *where names the fragment that declares it.
bool service_declared(std::string *where);

// The module as the console drives it: the service's forwarding device where the service is
// declared (phone), a refusal where it is declared but unreachable (desk), else load_module.
bool link_module(const std::string &explicit_path, int log_level, LoadedModule *out, std::string *error);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_SERVICE_LINK_H
