/*
 * What the upper layer sees of the "atcmdprocess" hardware module: the AT command record, the
 * notify message, the USB status pair, the device object with its operations, and the message
 * ids (row indices of the keyword table). Compiles as C and as C++.
 */
#ifndef ATCMDPROCESS_ATCMDPROCESS_H
#define ATCMDPROCESS_ATCMDPROCESS_H

#include <stdint.h>

#include <hardware/hardware.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ATCMDPROCESS_HARDWARE_MODULE_ID "atcmdprocess"

/* Kinds of AT line (AtCmder_t.type). */
#define AT_TYPE_EXEC 1     /* "AT" + keyword, neither "=" nor "?" */
#define AT_TYPE_SET 2      /* "AT" + keyword + "=" */
#define AT_TYPE_QUERY 3    /* "AT" + keyword + "?" */
#define AT_TYPE_RESPONSE 4 /* keyword first, sent by the peer */
#define AT_TYPE_REPORT 5   /* "+BATCG", "+HALLCG" and "+HRM" lines */

/* Nodes (AtCmder_t.source and .dest). */
#define AT_NODE_NONE 0      /* the upper layer or the module itself */
#define AT_NODE_PLATFORM1 1
#define AT_NODE_PLATFORM2 2
#define AT_NODE_ACCESSORY 3 /* the wired link, UART or VUART */

/* system_status.platform */
#define PLATFORM_VUART 1 /* accessory on the hot-plugged USB ACM port; Wi-Fi server side */
#define PLATFORM_UART 2  /* accessory on the board serial line; Wi-Fi client side */

/* system_status.mode, the cast mode */
#define AT_MODE_NONE (-1)
#define AT_MODE_USB 0
#define AT_MODE_WIFI 1

/* Longest AT line, in bytes with its terminator. */
#define AT_LINE_BUF_SIZE 160

/* Message ids: the row of each keyword in the keyword table, also AtCmder_t.cmd_id. */
enum at_msg_id {
    AT_MSG_REBOOT = 0,
    AT_MSG_UPGRADE = 1,
    AT_MSG_RECOVERY = 2,
    AT_MSG_SHUTDOWN = 3,
    AT_MSG_POWEROFF = 4,
    AT_MSG_RESET = 5,
    AT_MSG_STARTUP = 6,
    AT_MSG_BTMAC = 7,
    AT_MSG_BLEMAC = 8,
    AT_MSG_BAT = 9,
    AT_MSG_STATE = 10,
    AT_MSG_VER = 11,
    AT_MSG_HALL = 12,
    AT_MSG_SN = 13,
    AT_MSG_SID = 14,
    AT_MSG_TYPE = 15,
    AT_MSG_USBSTATE = 16,
    AT_MSG_SCREEN = 17,
    AT_MSG_WIFICON = 18,
    AT_MSG_MICMODE = 19,
    AT_MSG_WIFI = 20,
    AT_MSG_BT = 21,
    AT_MSG_TIME = 22,
    AT_MSG_OK = 23,
    AT_MSG_ERROR = 24,
    AT_MSG_SLEEP = 25,
    AT_MSG_BATCG = 26,
    AT_MSG_BKL = 27,
    AT_MSG_MODE = 28,
    AT_MSG_ACC = 29,
    AT_MSG_LIGHT = 30,
    AT_MSG_HALLCG = 31,
    AT_MSG_TEST = 32,
    AT_MSG_HRM = 33,
    AT_MSG_DTR = 34,
    AT_MSG_PTEST = 35,
    AT_MSG_MMI1 = 36,
    AT_MSG_PT = 37,
    AT_MSG_WT = 38,
    AT_MSG_COUNT = 39
};

/* One AT line in flight. `data` points to a NUL-terminated line of at most 159 characters that
 * belongs to whoever holds the record. */
typedef struct AtCmder_t {
    uint8_t type;
    uint8_t source;
    uint8_t dest;
    uint8_t flag;        /* the number after "&": the platform that originated the exchange */
    uint8_t resendtimes;
    uint8_t cmd_id;      /* row of the keyword in the keyword table */
    uint16_t seq_num;    /* the number after "#"; 0 means none */
    int32_t tv_sec;
    int32_t tv_usec;
    char *data;
} AtCmder_t;

/* Message handed to the notify callback; it and what `data` points to live only during the
 * call. Errors use msg_id AT_MSG_ERROR with `data` pointing to a negative int32_t. */
typedef struct AT_CMD_CbMsg_t {
    uint16_t msg_id;
    uint16_t seq_num;
    void *data;
} AT_CMD_CbMsg_t;

/* USB status sent with msg_id AT_MSG_USBSTATE. */
typedef struct usbdev_sts_t {
    int32_t connected;
    int32_t status;
} usbdev_sts_t;

/* What the module has learnt of the accessory. The texts are zero-terminated; notifications of
 * the serial number, SID, type, versions and MAC point into this record, so they stay readable
 * after the callback until the next answer of the same kind. */
#define CORVEL_VER_BLOCK_SIZE 256
#define CORVEL_VER_ITEMS 7
/* Offsets and sizes of the seven version slots in `ver`; slot 3 is the Wi-Fi module's version. */
#define CORVEL_VER_SLOT_OFFSETS {0, 32, 64, 96, 160, 192, 224}
#define CORVEL_VER_SLOT_SIZES {32, 32, 32, 64, 32, 32, 32}

typedef struct corvel_devInfo_t {
    char sn[32];
    char sid[32];
    char type[32];
    char ver[CORVEL_VER_BLOCK_SIZE];
    char bt_mac[32];
    int32_t model; /* 1 type with Wi-Fi, 2 type without, -1 other, 0 before any type answer */
} corvel_devInfo_t;

typedef void (*atcmdprocess_notify_cb)(const AT_CMD_CbMsg_t *msg);

typedef struct atcmdprocess_device {
    struct hw_device_t common; /* must stay first */
    struct {
        int32_t platform;    /* PLATFORM_VUART or PLATFORM_UART */
        int32_t mode;        /* AT_MODE_NONE, AT_MODE_USB or AT_MODE_WIFI */
        int32_t wifi_status; /* 1 while a Wi-Fi connection is wanted, 0 after a disconnect */
        int32_t phone_state; /* 1 "IDLE", 2 "ACTIVE" */
    } system_status;
    char server_ip[16];
    int32_t usb_status;
    int32_t usb_connected;
    atcmdprocess_notify_cb notify_callback;
    int (*set_notify_callback)(struct atcmdprocess_device *dev, atcmdprocess_notify_cb cb);
    int (*atcmdprocess_cmd_from_hidl)(const AtCmder_t *cmd);
    int (*atcmdprocess_wifi_init)(const char *ip_addr);
    int (*atcmdprocess_wifi_stchange)(int32_t state);
    int (*atcmdprocess_hiddemon_stchange)(const char *status);
    int (*atcmdprocess_amlogic_shake_hands)(void);
    int32_t reserved[4];
} atcmdprocess_device_t;

/* The phone's Bluetooth address, handed over by the process that hosts the module, for a phone
 * where the module cannot read "net.bluetooth.macaddr" itself (a vendor process may not read that
 * platform property on a Treble phone). The property still comes first; this address is sent to
 * the accessory only when the property is empty. `mac` is "XX:XX:XX:XX:XX:XX" in hexadecimal;
 * the platform's placeholder "02:00:00:00:00:00" and anything malformed are refused with a log
 * line. Returns 0, or -22 (-EINVAL) when refused. Any thread; the host finds it with dlsym on the
 * module's handle (hw_module_t.dso), as it is not one of the device's operations: the device
 * object's layout stays as every upper layer knows it. */
#define ATCMDPROCESS_SET_BT_MACADDR_SYM "atcmdprocess_set_bt_macaddr"
int atcmdprocess_set_bt_macaddr(const char *mac);
typedef int (*atcmdprocess_set_bt_macaddr_fn)(const char *mac);

#ifdef __cplusplus
}
#endif

#endif /* ATCMDPROCESS_ATCMDPROCESS_H */
