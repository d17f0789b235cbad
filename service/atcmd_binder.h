/*
 * The binder side of the service: the IAtCmd object over the core, the client's callback with
 * its death link, the registration under the service's instance name. Phone only.
 */
#ifndef ATCMD_SERVICE_ATCMD_BINDER_H
#define ATCMD_SERVICE_ATCMD_BINDER_H

namespace atcmd_service {

// Makes the IAtCmd object and registers it with the service manager; false (logged) on failure.
// Call after core_start.
bool binder_register_service();

}  // namespace atcmd_service

#endif  // ATCMD_SERVICE_ATCMD_BINDER_H
