/*
 * ACM port discovery and the USB events sent to the upper layer. Discovery is not wired yet:
 * dev_hotplug_init starts the named discovery thread, which waits. notify_usbevent runs on the
 * supervisor and on the dispatch thread (parsers).
 */
#define LOG_TAG "ATCMD_HOTPLUG"

#include <sys/prctl.h>
#include <unistd.h>

#include "hal/hal.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"

char g_dev_ACM_name[64] = "";
int fd_inotify_input = -1;
int epfd_hid_devs = -1;
pthread_t g_find_acmdev_thread = 0;

int32_t parse_dev_name(const char * /*name*/) { return -1; }
int scan_acm_devices(void) { return 0; }
int inotify_input_event(void) { return -1; }
int dev_event_process(void) { return 0; }
int corvel_plugged(void) { return 0; }

void *handler_acm_devs_epoll(void * /*arg*/) {
    prctl(PR_SET_NAME, "devEpoll_process");
    ATCMD_LOG(3, "handler_acm_devs_epoll thread is running");
    for (;;) pause();
    return nullptr;
}

int dev_hotplug_init(void) {
    if (pthread_create(&g_find_acmdev_thread, nullptr, handler_acm_devs_epoll, nullptr) != 0) {
        ATCMD_LOG(0, "pthread_create error\n");
        return -4;
    }
    return 0;
}

void notify_usbevent(void) {
    usbdev_sts_t sts = {g_patcmd_dev->usb_connected, g_patcmd_dev->usb_status};
    ATCMD_LOG(4, "Notify usb evt %d %d", sts.connected, sts.status);
    AT_CMD_CbMsg_t msg = {AT_MSG_USBSTATE, 0, &sts};
    atcmd_notify(&msg);
}
