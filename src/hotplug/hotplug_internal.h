/*
 * Hotplug state shared between the files of this subsystem only.
 */
#ifndef ATCMD_HOTPLUG_HOTPLUG_INTERNAL_H
#define ATCMD_HOTPLUG_HOTPLUG_INTERNAL_H

#include <mutex>

/* Guards g_dev_ACM_name (written by parse_dev_name, read by corvel_plugged). */
extern std::mutex g_dev_ACM_name_mutex;

#endif /* ATCMD_HOTPLUG_HOTPLUG_INTERNAL_H */
