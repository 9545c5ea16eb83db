/*
 * qnm.h - public interface of libqnm, the manager library for Quillnet (QN) adapter cards.
 *
 * QN cards carry PCI Express over Ethernet and announce themselves by broadcast frames. A host
 * program gives the library one thread by calling qnm_init_manager(), which blocks until the
 * manager is stopped. The library then learns every card heard on up to two local Ethernet ports,
 * tracks each path to it, and reports changes through callbacks.
 *
 * The life of a host program:
 *
 *     thread A:  qnm_init_manager(dir, QNM_LOGLVL_NONE);         blocks; returns after the stop
 *     thread B:  qnm_register_callback(...) until it no longer returns QNM_API_ENOSYS
 *                qnm_start_manager();                             frames are taken from here on
 *                ... query calls, callbacks ...
 *                qnm_fini_manager();                              only asks for the stop
 *                join thread A
 *
 * Rules that hold for every call, unless its own comment says otherwise:
 *
 *  - Thread safety: any thread may call, also several at once and from inside a callback.
 *  - Usable manager: a call returns QNM_API_ENOSYS until the start-up of qnm_init_manager() is
 *    complete, and again as soon as a stop has been requested.
 *  - A card ID is a 48-bit number in the low bits of a uint64_t: the six bytes of the MAC address
 *    that the card announces itself from, first byte most significant. A card with two paths (40G)
 *    sends from two MAC addresses that differ in the lowest bit; its ID has that bit cleared.
 *  - Time is wall-clock time in milliseconds since the epoch.
 *  - Output arguments are written only on success, unless stated.
 *  - Strings and records passed in stay the caller's; the library keeps no pointer to them.
 *  - Signals: no call is cut short by one, and the library's own threads take none. From a signal
 *    handler only qnm_err2retcode(), qnm_retcode_text(), qnm_event_name() and the comparisons may
 *    be called. To stop the manager from a handler, have a thread call qnm_fini_manager().
 *  - fork(): the manager stays with the parent and is not disturbed. In the child only the same
 *    functions may be called; qnm_init_manager() returns QNM_API_EBUSY there if the manager of the
 *    parent was running. The child ends by _exit() or by executing a program: exit() may wait for
 *    ever for threads that the child does not have. Programs that are executed inherit no port,
 *    socket or pipe.
 *  - exit() and a return from main() need no stop before them, whatever the threads are doing.
 *    Log lines that are being written are waited for, up to a second. Later lines are dropped, also
 *    those of atexit() handlers that were registered before the manager was running.
 *  - Cancellation: a thread inside a call must not be cancelled.
 *  - Ceilings: at most 262,144 cards are known, of both kinds together, and at most 1,000,000
 *    events wait for their callbacks. Beyond that, new cards are refused and events are lost, and
 *    the log says how many, once a second. To make room for cards, delete some.
 *
 * What the calls promise one by one. Manager: in which state the call can succeed. In a callback:
 * whether a callback may call it. Takes: what the call waits for, apart from short locks and the
 * log. At a stop: what happens to a call that is under way. Memory: who owns the memory of a
 * result.
 *
 *   call                     manager      in a callback  takes           at a stop  memory
 *   qnm_err2retcode          any          yes            at once         completes  -
 *   qnm_retcode_text         any          yes            at once         completes  constant
 *   qnm_event_name           any          yes            at once         completes  constant
 *   qnm_init_manager         not running  refused        until the stop  returns    -
 *   qnm_start_manager        running      yes            at once         completes  -
 *   qnm_fini_manager         any          yes            at once         completes  -
 *   qnm_get_qnsv             running      yes            at once         completes  caller's
 *   qnm_get_qnio             running      yes            at once         completes  caller's
 *   qnm_get_qnsvids          running      yes            per card        completes  list to free
 *   qnm_get_qnioids          running      yes            per card        completes  list to free
 *   qnm_get_update_qnsvids   running      yes            per card        completes  list to free
 *   qnm_get_update_qnioids   running      yes            per card        completes  list to free
 *   qnm_get_group_qnsvids    running      yes            per card        completes  list to free
 *   qnm_get_group_qnioids    running      yes            per card        completes  list to free
 *   qnm_delete_qnsv          running      yes            at once         completes  -
 *   qnm_delete_qnio          running      yes            at once         completes  -
 *   qnm_free_idlist          any          yes            at once         completes  frees list
 *   qnm_stop_monitor         running      yes            at once         completes  -
 *   qnm_restart_monitor      running      yes            at once         completes  -
 *   qnm_register_callback    running      other type     callback        completes  handle
 *   qnm_unregister_callback  running      other type     callback        completes  frees handle
 *   qnm_read_register        running      yes            answers         ends       caller's
 *   qnm_write_register       running      yes            turn, answers   ends       -
 *   qnm_modify_register      running      yes            turn, answers   ends       -
 *   qnm_dump_register        running      yes            answers         ends       caller's
 *   qnm_read_eeprom          running      yes            turn, answers   ends       caller's
 *   qnm_write_eeprom         running      yes            turn, answers   ends       -
 *   qnm_dump_eeprom          running      yes            turn, answers   ends       caller's
 *   qnm_unlock_eeprom        running      yes            answers         ends       -
 *   qnm_set_vlanid           running      yes            answers         ends       -
 *   qnm_send_resetframe      running      yes            at once         completes  -
 *   qnm_write_mmspage        running      yes            answers         ends       -
 *   qnm_set_loglevel         running      yes            at once         completes  -
 *   qnm_stdump               running      yes            per card        completes  -
 *   qnm_log_init             any          yes            file            completes  -
 *   qnm_log_*                any          yes            at once         completes  -
 *   qnm_syslog_*             any          yes            at once         completes  -
 *   qnm_statslog             any          yes            at once         completes  -
 *   qnm_rbtree_*_compare     any          yes            at once         completes  -
 *
 *   at once     microseconds; locks are held for moments only
 *   per card    the same for every card that is known
 *   callback    until a callback of the same event type that is running returns
 *   answers     frames of the card, no longer than the retry parameters say
 *   turn        other writing and EEPROM calls to the same card first
 *   completes   the stop waits for it
 *   ends        it is woken and returns QNM_API_ENOSYS
 *
 * Link with -lqnm. The header is valid C99 and C++. The manual pages in section 3 are made from the
 * comments that begin with two stars and from the table above.
 */
#ifndef QNM_H
#define QNM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* All other symbols of the library are hidden. */
#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

/* In C++11 and later, the enumerations can hold any int, so a wrong value is refused, not
 * undefined. */
#if defined(__cplusplus) && __cplusplus >= 201103L
#define QNM_ANY_INT : int
#else
#define QNM_ANY_INT
#endif

#ifdef __GNUC__
#define QNM_PRINTF_FORMAT __attribute__((format(printf, 1, 2)))
#else
#define QNM_PRINTF_FORMAT
#endif

/* ---- Version --------------------------------------------------------------------------------- */

/**
 * The version of the header as a text, such as "1.0.0"; its three numbers are for the preprocessor.
 * Additions to the interface raise the minor version. A program runs with every library of the same
 * major version that is not older than the header.
 */
#define QNM_VERSION QNM_VERSION_TEXT(QNM_VERSION_MAJOR, QNM_VERSION_MINOR, QNM_VERSION_PATCH)
#define QNM_VERSION_MAJOR 1 /**< as QNM_VERSION */
#define QNM_VERSION_MINOR 0 /**< as QNM_VERSION */
#define QNM_VERSION_PATCH 0 /**< as QNM_VERSION */

#define QNM_VERSION_TEXT(major, minor, patch) QNM_QUOTED_VERSION(major, minor, patch)
#define QNM_QUOTED_VERSION(major, minor, patch) #major "." #minor "." #patch

/* ---- Result codes ---------------------------------------------------------------------------- */

/** Result of every public call that can fail. */
typedef enum qnm_api_code QNM_ANY_INT {
    QNM_API_SUCCESS = 0,   /**< success */
    QNM_API_EINVAL = 1,    /**< invalid argument */
    QNM_API_ERANGE = 2,    /**< value out of range, or a list longer than the caller accepts */
    QNM_API_ENOENT = 3,    /**< no such card or entry */
    QNM_API_ENOLINK = 4,   /**< no link to the card */
    QNM_API_ENOMEM = 5,    /**< out of memory */
    QNM_API_EPROTO = 6,    /**< protocol or internal error, also the catch-all */
    QNM_API_ETIMEDOUT = 7, /**< no answer in time */
    QNM_API_EBUSY = 8,     /**< busy */
    QNM_API_ENOSYS = 9,    /**< the manager is not in a state to serve the call */
    QNM_API_CODE_MAX = 10  /**< number of codes; not a result */
} qnm_api_code_t;

/**
 * Maps an internal errno-style code to a result code. Needs no running manager.
 *
 * @param[in] err  a code as the library's log shows it
 * @retval QNM_API_SUCCESS    for 0
 * @retval QNM_API_EINVAL     for 22
 * @retval QNM_API_ERANGE     for 34
 * @retval QNM_API_ENOENT     for 2
 * @retval QNM_API_ENOLINK    for 67
 * @retval QNM_API_ENOMEM     for 12
 * @retval QNM_API_EPROTO     for 71 and every other value, negative ones included
 * @retval QNM_API_ETIMEDOUT  for 110
 * @retval QNM_API_EBUSY      for 16
 * @retval QNM_API_ENOSYS     for 38
 */
qnm_api_code_t qnm_err2retcode(int err);

/**
 * Describes a result code in words, such as "no answer in time". The function is inline: the
 * library exports no symbol for it.
 *
 * @param[in] code  a result code, or any other number
 * @return the text, never NULL; "unknown result code" for any other number
 */
static inline const char* qnm_retcode_text(qnm_api_code_t code) {
    switch (code) {
        case QNM_API_SUCCESS:
            return "success";
        case QNM_API_EINVAL:
            return "invalid argument";
        case QNM_API_ERANGE:
            return "value out of range, or a list longer than accepted";
        case QNM_API_ENOENT:
            return "no such card or entry";
        case QNM_API_ENOLINK:
            return "no link to the card";
        case QNM_API_ENOMEM:
            return "out of memory";
        case QNM_API_EPROTO:
            return "protocol or internal error";
        case QNM_API_ETIMEDOUT:
            return "no answer in time";
        case QNM_API_EBUSY:
            return "busy";
        case QNM_API_ENOSYS:
            return "the manager is not running";
        case QNM_API_CODE_MAX:
            break;
    }
    return "unknown result code";
}

/* ---- Manager lifecycle ----------------------------------------------------------------------- */

/** Log level: a line is written when its level is at or below the running level. */
typedef enum qnm_log_level QNM_ANY_INT {
    QNM_LOGLVL_NONE = -1, /**< as an argument: take the level from the configuration file */
    QNM_LOGLVL_FATAL = 0, /**< errors that end the manager */
    QNM_LOGLVL_ERROR = 1, /**< errors */
    QNM_LOGLVL_WARN = 2,  /**< unexpected events that the library can handle */
    QNM_LOGLVL_INFO = 3,  /**< calls, and changes of cards and ports */
    QNM_LOGLVL_DEBUG = 4, /**< steps within a call */
    QNM_LOGLVL_TRACE = 5  /**< the finest steps, including locks */
} qnm_log_level_t;

/**
 * Runs the manager on the calling thread: reads the configuration, opens the ports, starts the
 * worker threads and then stays inside until qnm_fini_manager() is called or an internal error
 * ends the manager. Afterwards it may be called again.
 *
 * @param[in] path       installation directory that holds conf/qnm.conf and
 *                       conf/qnm_log4c.properties, at most 485 characters; NULL or "" means
 *                       /opt/tarvo/qnm. A missing qnm.conf means defaults; a missing
 *                       qnm_log4c.properties is an error.
 * @param[in] log_level  running log level, QNM_LOGLVL_NONE (the level of the configuration file) to
 *                       QNM_LOGLVL_TRACE.
 * @retval QNM_API_SUCCESS  the manager ran and was stopped by qnm_fini_manager()
 * @retval QNM_API_EINVAL   log_level out of range, or path is not a directory
 * @retval QNM_API_EPROTO   path too long, properties file missing, configuration invalid, no port
 *                          could be opened, a thread or pipe could not be made, or an internal
 *                          error ended the running manager; the log says which, if there is a
 *                          log (see qnm_log_init()) and memory for the line
 * @retval QNM_API_EBUSY    the manager is already running, starting or not yet stopped
 *
 * The worker threads run with all signals blocked. Raw sockets need CAP_NET_RAW.
 */
qnm_api_code_t qnm_init_manager(const char* path, qnm_log_level_t log_level);

/**
 * Lets frames in: until this call every received frame is dropped, so that a host can register its
 * callbacks first. Calling it again while the manager runs succeeds again.
 *
 * @retval QNM_API_SUCCESS  frames are taken from now on
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_start_manager(void);

/**
 * Requests the stop, and returns at once; the stop is complete when qnm_init_manager() returns on
 * its own thread, at the latest one devinfo_flag_check_interval plus one second later (plus the
 * time that callbacks take for the events raised by then). A request made during start-up ends the
 * manager as soon as it is complete; one made while no manager is running is forgotten by the next
 * start.
 *
 * @retval QNM_API_SUCCESS  always, whatever the manager's state
 */
qnm_api_code_t qnm_fini_manager(void);

/* ---- Card records ---------------------------------------------------------------------------- */

/**
 * What cards of both kinds report. Arrays are indexed [port][path]: the first index is the local
 * port (0 or 1) that a frame came in by, the second the path on the card (0 or 1, the lowest bit of
 * a 40G card's source MAC; a 1G/10G card always uses path 0). Logs write P0M0, P0M1, P1M0, P1M1.
 */
typedef struct qnm_com_dev {
    uint64_t ecd_id;             /**< card ID */
    uint64_t ecd_recvtime[2][2]; /**< time (ms) of the last announcement per path; 0 = none */
    uint64_t ecd_updatetime;     /**< time (ms) of the last change that was reported */
    uint32_t ecd_state[2][2];    /**< per [port][path]: 1 = connected, 0 = disconnected */
    uint32_t ecd_uidsw;          /**< UID switch, 0 or 1 */
    uint32_t ecd_power;          /**< power bit, 0 or 1 */
    uint32_t ecd_port0_link;     /**< link of the card's own port 0, 0 or 1 */
    uint32_t ecd_port1_link;     /**< link of the card's own port 1, 0 or 1 */
    uint16_t ecd_vlan_id;        /**< VLAN ID (12 bits) of the card's frames: its group ID */
    uint8_t ecd_macaddr[6];      /**< MAC address of the card (40G: lowest bit cleared) */
    uint8_t ecd_swstatus[3];     /**< the three switch-status bytes as announced */
    uint8_t ecd_vlan_mode;       /**< 0 = ordinary VLAN tagging, else VLAN-tag change mode */
    uint8_t ecd_flowid;          /**< flow ID of the card */
    uint8_t ecd_type;            /**< 0 = 1G/10G card, else 40G card */
    uint8_t ecd_linkstatus;      /**< link-status byte as announced */
    uint8_t ecd_int_vector;      /**< interrupt vector: pending major and minor errors */
    uint8_t ecd_ver;             /**< card version, 4 bits */
    uint8_t ecd_pad1[7];         /**< reserved, always zero */
} qnm_com_dev_t;

/** Bridge settings of one PCIe port of a card; multi-byte values as the card announced them. */
typedef struct qnm_com_port_s {
    uint32_t ecp_pre_base_upper;   /**< upper 32 bits of the prefetchable base */
    uint32_t ecp_pre_limit_upper;  /**< upper 32 bits of the prefetchable limit */
    uint16_t ecp_memory_base;      /**< memory base */
    uint16_t ecp_memory_limit;     /**< memory limit */
    uint16_t ecp_pre_memory_base;  /**< prefetchable memory base, lower part */
    uint16_t ecp_pre_memory_limit; /**< prefetchable memory limit, lower part */
    uint8_t ecp_pri_bus_num;       /**< primary bus number */
    uint8_t ecp_sec_bus_num;       /**< secondary bus number */
    uint8_t ecp_sub_bus_num;       /**< subordinate bus number */
    uint8_t ecp_command;           /**< command byte of the bridge */
    uint8_t ecp_pad1[4];           /**< reserved, always zero */
} qnm_com_port_t, qnm_up_port_t;

/** One downstream port of a QNSV card. */
typedef struct qnm_down_port {
    qnm_com_port_t edp_com_port; /**< zero unless a QNIO card is connected behind the port */
    uint8_t edp_port_status[2];  /**< as announced; bit 1 of [1]: a QNIO card is connected */
    uint8_t edp_io_mac[6];       /**< MAC address of the QNIO card behind the port */
} qnm_down_port_t;

/** A QNSV card: the server side. */
typedef struct qnm_qnsv {
    qnm_com_dev_t esv_com_dev;         /**< what cards of both kinds report */
    qnm_up_port_t esv_up_port;         /**< the upstream port */
    qnm_down_port_t esv_down_port[16]; /**< 0 to 7 on a 1G/10G card, 0 to 15 on a 40G card */
} qnm_qnsv_t;

/** A QNIO card: the I/O side. */
typedef struct qnm_qnio {
    qnm_com_dev_t eio_com_dev;    /**< what cards of both kinds report */
    uint32_t eio_class_code;      /**< 24-bit PCI class code */
    uint16_t eio_device_id;       /**< PCI device ID as announced */
    uint16_t eio_vendor_id;       /**< PCI vendor ID as announced */
    uint16_t eio_mr_resource_num; /**< resource ID of a multi-root card, else 0 */
    uint8_t eio_sermacaddr[6];    /**< MAC address of the QNSV card this card is bound to */
    uint8_t eio_substate[2];      /**< as announced; bit 1 of [1]: bound to a QNSV card */
    uint8_t eio_link0fault;       /**< fault of the link at the card's port 0, 0 or 1 */
    uint8_t eio_link1fault;       /**< fault of the link at the card's port 1, 0 or 1 */
    uint8_t eio_pcie_presence;    /**< PCIe presence bit, 0 or 1 */
    uint8_t eio_pad1[3];          /**< reserved, always zero */
} qnm_qnio_t;

/* ---- Card queries ---------------------------------------------------------------------------- */

/**
 * Copies the record of one card.
 *
 * @param[in] id     card ID
 * @param[out] qnsv  filled with the record (qnio: likewise); the caller's memory
 * @retval QNM_API_SUCCESS  the record was copied
 * @retval QNM_API_EINVAL   the pointer is NULL
 * @retval QNM_API_ENOENT   no card of this kind has that ID
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_get_qnsv(uint64_t id, qnm_qnsv_t* qnsv);
qnm_api_code_t qnm_get_qnio(uint64_t id, qnm_qnio_t* qnio); /**< as qnm_get_qnsv() */

/**
 * Lists the IDs of all known cards of one kind in ascending order.
 *
 * @param[out] id_list  receives the list, NULL when it is empty. The library allocates it; the
 *                      caller owns it and frees it with qnm_free_idlist().
 * @param[in,out] num   in: the most IDs accepted, 0 for the configured id_list_upper_limit; out:
 *                      the number of IDs in the list, or with QNM_API_ERANGE the number needed
 * @retval QNM_API_SUCCESS  the list was made; it may be empty
 * @retval QNM_API_EINVAL   id_list or num is NULL
 * @retval QNM_API_ERANGE   more cards than accepted; nothing was allocated
 * @retval QNM_API_ENOMEM   the list could not be allocated
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_get_qnsvids(uint64_t** id_list, uint32_t* num);
qnm_api_code_t qnm_get_qnioids(uint64_t** id_list, uint32_t* num); /**< as qnm_get_qnsvids() */

/**
 * Lists the IDs of the cards of one kind whose ecd_updatetime is at or after a given time, in
 * ascending order of ID.
 *
 * @param[in] time      milliseconds since the epoch
 * @param[out] id_list  receives the list, NULL when it is empty. The library allocates it; the
 *                      caller owns it and frees it with qnm_free_idlist().
 * @param[in,out] num   in: the most IDs accepted, 0 for the configured id_list_upper_limit; out:
 *                      the number of IDs in the list, or with QNM_API_ERANGE the number needed
 * @retval QNM_API_SUCCESS  the list was made; it may be empty
 * @retval QNM_API_EINVAL   id_list or num is NULL
 * @retval QNM_API_ERANGE   more cards than accepted; nothing was allocated
 * @retval QNM_API_ENOMEM   the list could not be allocated
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_get_update_qnsvids(uint64_t time, uint64_t** id_list, uint32_t* num);
qnm_api_code_t qnm_get_update_qnioids(uint64_t time, uint64_t** id_list,
                                      uint32_t* num); /**< as qnm_get_update_qnsvids() */

/**
 * Lists the IDs of the cards of one kind in one group, that is, with one VLAN ID, in ascending
 * order.
 *
 * @param[in] groupid   VLAN ID, 1 to 4094
 * @param[out] id_list  receives the list, NULL when it is empty. The library allocates it; the
 *                      caller owns it and frees it with qnm_free_idlist().
 * @param[in,out] num   in: the most IDs accepted, 0 for the configured id_list_upper_limit; out:
 *                      the number of IDs in the list, or with QNM_API_ERANGE the number needed
 * @retval QNM_API_SUCCESS  the list was made; it may be empty
 * @retval QNM_API_EINVAL   groupid out of range, or id_list or num is NULL
 * @retval QNM_API_ERANGE   more cards than accepted; nothing was allocated
 * @retval QNM_API_ENOMEM   the list could not be allocated
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_get_group_qnsvids(uint16_t groupid, uint64_t** id_list, uint32_t* num);
qnm_api_code_t qnm_get_group_qnioids(uint16_t groupid, uint64_t** id_list,
                                     uint32_t* num); /**< as qnm_get_group_qnsvids() */

/**
 * Forgets one card. No event is raised; a card that still announces itself is learnt again as new.
 *
 * @param[in] id  card ID
 * @retval QNM_API_SUCCESS  the card was forgotten
 * @retval QNM_API_ENOENT   no card of this kind has that ID
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_delete_qnsv(uint64_t id);
qnm_api_code_t qnm_delete_qnio(uint64_t id); /**< as qnm_delete_qnsv() */

/**
 * Frees a list of IDs from any of the list calls. NULL is accepted. Needs no running manager.
 *
 * @param[in] id_list  a list that was handed out and not freed yet, or NULL; anything else is
 *                     undefined
 * @retval QNM_API_SUCCESS  always
 */
qnm_api_code_t qnm_free_idlist(uint64_t* id_list);

/* ---- Monitor control ------------------------------------------------------------------------- */

/**
 * Stops the monitoring of a card ID: its announcements are dropped, and a known card keeps its
 * record unchanged, connected paths included. The ID need not be known; an unknown one is not
 * learnt until it is restarted. Stopping twice is no error.
 *
 * @param[in] id  card ID
 * @retval QNM_API_SUCCESS  the ID is stopped
 * @retval QNM_API_ENOMEM   the ID could not be remembered
 * @retval QNM_API_EPROTO   internal error
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_stop_monitor(uint64_t id);

/**
 * Restarts the monitoring of a card ID. A known card is updated from its next announcement; when
 * none comes, it is declared disconnected after about devinfo_expire_time. Restarting an ID that
 * was never stopped is no error and starts that wait as well.
 *
 * @param[in] id  card ID
 * @retval QNM_API_SUCCESS  the ID is monitored
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_restart_monitor(uint64_t id);

/* ---- Events ---------------------------------------------------------------------------------- */

/** Types of events. */
typedef enum qnm_evt_type QNM_ANY_INT {
    QNM_EVT_NEWDEVINFO = 0,         /**< a card was learnt */
    QNM_EVT_UPDATEDEVINFO = 1,      /**< a card's record changed, a lost path included */
    QNM_EVT_CONNECTIONCHANGE = 2,   /**< the binding between QNSV and QNIO cards changed */
    QNM_EVT_MAJORMINORERROR = 3,    /**< the card reports a new major or minor error */
    QNM_EVT_PATHSTATECHANGE = 4,    /**< a link-fault bit of a QNIO card changed */
    QNM_EVT_CHANNELSTATECHANGE = 5, /**< a path [port][path] was connected or disconnected */
    QNM_EVT_MAX = 6                 /**< number of types; not a type */
} qnm_evt_type_t;

/**
 * Names an event type: its constant without QNM_EVT_, such as "NEWDEVINFO". The function is inline:
 * the library exports no symbol for it.
 *
 * @param[in] type  an event type, or any other number
 * @return the name, never NULL; "unknown event type" for any other number
 */
static inline const char* qnm_event_name(qnm_evt_type_t type) {
    switch (type) {
        case QNM_EVT_NEWDEVINFO:
            return "NEWDEVINFO";
        case QNM_EVT_UPDATEDEVINFO:
            return "UPDATEDEVINFO";
        case QNM_EVT_CONNECTIONCHANGE:
            return "CONNECTIONCHANGE";
        case QNM_EVT_MAJORMINORERROR:
            return "MAJORMINORERROR";
        case QNM_EVT_PATHSTATECHANGE:
            return "PATHSTATECHANGE";
        case QNM_EVT_CHANNELSTATECHANGE:
            return "CHANNELSTATECHANGE";
        case QNM_EVT_MAX:
            break;
    }
    return "unknown event type";
}

/**
 * A callback for events. It runs on the library's event thread, one event at a time, in the order
 * in which the events arose and the callbacks were registered. It may call every public function
 * except qnm_register_callback() and qnm_unregister_callback() for its own event type, which would
 * deadlock. While it runs, further events wait. A stop does not interrupt the delivery of waiting
 * events once it has begun, so a slow callback delays the stop by its backlog; later events are
 * dropped. It must not throw.
 *
 * @param[in] id     card ID
 * @param[in] event  event type
 * @param[in] arg    the pointer given at registration
 */
typedef void (*qnm_cbfunc_t)(uint64_t id, qnm_evt_type_t event, void* arg);

/** Handle of one registration, valid until it is unregistered or the manager has stopped. */
typedef struct __qnm_cbid* qnm_cbid_t;

/**
 * Registers a callback for one event type. The same function may be registered any number of
 * times; each registration is called on its own.
 *
 * @param[in] type     QNM_EVT_NEWDEVINFO to QNM_EVT_CHANNELSTATECHANGE
 * @param[in] cb_func  the function to call
 * @param[in] cb_arg   passed to it untouched; may be NULL
 * @param[out] id      receives the handle
 * @retval QNM_API_SUCCESS  registered
 * @retval QNM_API_EINVAL   type out of range, or cb_func or id is NULL
 * @retval QNM_API_ENOMEM   out of memory
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_register_callback(qnm_evt_type_t type, qnm_cbfunc_t cb_func, const void* cb_arg,
                                     qnm_cbid_t* id);

/**
 * Ends one registration. When the call returns, the callback is not running and will not be called
 * again for it. Waits while a callback of the same event type runs.
 *
 * A handle that was already unregistered, or is from before a restart, is refused without waiting.
 * Only its value is compared, and a later registration may have got the same value.
 *
 * @param[in] id  a handle that is registered
 * @retval QNM_API_SUCCESS  the callback is no longer registered
 * @retval QNM_API_EINVAL   id is NULL, or no registered handle
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_unregister_callback(qnm_cbid_t id);

/* ---- Device access --------------------------------------------------------------------------- */

/**
 * @defgroup device Access to cards
 *
 * These calls access a card by frames that it obeys or answers. They run on the caller's thread and
 * block it. A read sends one frame and waits for the answer, and sends again if none comes in time.
 * Cards do not acknowledge what is written; with QNM_FLAG_VERIFY it is confirmed by reading it
 * back. A card is reached over the first of its connected paths P0M0, P0M1, P1M0, P1M1. All calls
 * may be made from any number of threads at once, and from callbacks.
 *
 * Register writes and modifications, and all EEPROM calls but qnm_unlock_eeprom(), exclude each
 * other on one card within this manager; a register read may come between them at any time.
 *
 * A register read takes at most (retry count + 1) x retry interval. A verified write is written and
 * read back up to retry count + 1 times. A live check adds up to four reads, with the values
 * configured for it.
 *
 * Only one manager at a time can access cards by an interface: all managers there look the same to
 * the cards, so that one would take the other's answers. The first call that sends a frame by a
 * port takes the port for this manager until it stops. From then on, these calls return
 * QNM_API_EBUSY in all other processes of this machine and of this network namespace, and the log
 * says which process has the port. Listening is not restricted. Managers on different machines do
 * not exclude each other.
 *
 * In addition to the results that each call lists, all of them may return:
 *
 * @retval QNM_API_ENOENT     the card ID is not known
 * @retval QNM_API_ENOLINK    no path to the card is connected, or its monitoring is stopped; with
 *                            QNM_FLAG_LIVECHECK, where a call heeds it: no path answered
 * @retval QNM_API_EPROTO     a frame could not be sent, an internal error, or, where registers are
 *                            read, all completion tags are in use
 * @retval QNM_API_ENOSYS     the manager is not running, or was stopped during the call
 * @{
 */

/**
 * Retry parameters of one call; a null pointer means the configured frame_retry_count and
 * frame_retry_interval.
 */
typedef struct qnm_retry {
    uint32_t er_retry_count;    /**< number of frames sent again after the first */
    uint32_t er_retry_interval; /**< milliseconds to wait for each answer; 0 is invalid */
} qnm_retry_t;

/** Flags of the device calls; combine them with |. Other bits are ignored. */
enum {
    /**
     * Also use a card whose monitoring is stopped or that has no connected path: first look for a
     * path on which it answers. If it answers on none, the call returns QNM_API_ENOLINK.
     */
    QNM_FLAG_LIVECHECK = 0x1,
    /** Writing calls: read back what was written, and write again until it holds. */
    QNM_FLAG_VERIFY = 0x2,
    /** EEPROM calls: take the card's EEPROM lock away from another party that keeps it. */
    QNM_FLAG_FORCELOCK = 0x4
};

/**
 * Reads one 32-bit register.
 *
 * @param[in] id           card ID
 * @param[in] addr         byte address, a multiple of 4; cards see the low 22 bits
 * @param[out] data        receives the value; untouched on failure
 * @param[in] retry_param  NULL for the configured values
 * @param[in] flags        QNM_FLAG_LIVECHECK
 * @retval QNM_API_SUCCESS    the value was read
 * @retval QNM_API_EINVAL     addr is no multiple of 4, data is NULL, or the retry interval is 0
 * @retval QNM_API_ETIMEDOUT  no answer to any of retry count + 1 frames
 * @retval QNM_API_EBUSY      another process accesses cards by the same port
 */
qnm_api_code_t qnm_read_register(uint64_t id, uint32_t addr, uint32_t* data,
                                 const qnm_retry_t* retry_param, uint32_t flags);

/**
 * Writes one 32-bit register. Without QNM_FLAG_VERIFY, success means that the frame was sent.
 *
 * @param[in] id           card ID
 * @param[in] addr         byte address, a multiple of 4; cards see the low 22 bits
 * @param[in] data         the value
 * @param[in] retry_param  with QNM_FLAG_VERIFY: for each reading back, and how often to write
 * again; NULL for the configured values
 * @param[in] flags        QNM_FLAG_LIVECHECK, QNM_FLAG_VERIFY
 * @retval QNM_API_SUCCESS    the value was sent, or with QNM_FLAG_VERIFY read back
 * @retval QNM_API_EINVAL     addr is no multiple of 4, or the retry interval is 0
 * @retval QNM_API_ETIMEDOUT  QNM_FLAG_VERIFY: no answer, or another value after retry count + 1
 *                            writes
 * @retval QNM_API_EBUSY      another process accesses cards by the same port
 */
qnm_api_code_t qnm_write_register(uint64_t id, uint32_t addr, uint32_t data,
                                  const qnm_retry_t* retry_param, uint32_t flags);

/**
 * Changes the bits of a register that mask names, and keeps the others. Nothing is written when
 * they hold the wanted values already.
 *
 * @param[in] id           card ID
 * @param[in] addr         byte address, a multiple of 4; cards see the low 22 bits
 * @param[in] data         the wanted bits; those outside mask do not matter
 * @param[in] mask         the bits to change
 * @param[in] retry_param  as for qnm_write_register()
 * @param[in] flags        QNM_FLAG_LIVECHECK, QNM_FLAG_VERIFY
 * @retval QNM_API_SUCCESS    the bits hold, or without QNM_FLAG_VERIFY were sent
 * @retval QNM_API_EINVAL     addr is no multiple of 4, or the retry interval is 0
 * @retval QNM_API_ETIMEDOUT  no answer, or QNM_FLAG_VERIFY: other bits after retry count + 1 writes
 * @retval QNM_API_EBUSY      another process accesses cards by the same port
 */
qnm_api_code_t qnm_modify_register(uint64_t id, uint32_t addr, uint32_t data, uint32_t mask,
                                   const qnm_retry_t* retry_param, uint32_t flags);

/**
 * Reads consecutive registers: those from startaddr up to, not including, endaddr.
 *
 * @param[in] id           card ID
 * @param[in] startaddr    a multiple of 4
 * @param[in] endaddr      a multiple of 4 above startaddr
 * @param[out] data        the caller's array; its elements are filled in ascending order of
 *                         address, up to the one that failed
 * @param[in,out] len      in: size of the array in bytes, at least endaddr - startaddr; out: bytes
 *                         read, on every result; after a failure, those read before it, maybe 0
 * @param[in] retry_param  NULL for the configured values
 * @param[in] flags        QNM_FLAG_LIVECHECK
 * @retval QNM_API_SUCCESS    all were read
 * @retval QNM_API_EINVAL     an address, the order of the two or *len does not fit, data or len is
 *                            NULL, or the retry interval is 0
 * @retval QNM_API_ETIMEDOUT  a register was not answered
 * @retval QNM_API_EBUSY      another process accesses cards by the same port
 */
qnm_api_code_t qnm_dump_register(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t* data,
                                 size_t* len, const qnm_retry_t* retry_param, uint32_t flags);

/**
 * @defgroup eeprom Access to EEPROMs
 *
 * EEPROM calls reach the card's 2048 bytes through registers that it shares among several parties,
 * so each word is accessed under a lock that the card keeps. A word takes milliseconds when all
 * goes well. The calls wait some seconds for a lock that another party holds, and taking a lock by
 * force can take minutes (see the eeprom_ keys of the configuration). retry_param applies to every
 * register frame, and its count also to the attempts at a word.
 *
 * Every call releases the lock before it returns. If the manager is stopped during a call, or the
 * card no longer answers, the lock is released by frames that the call does not wait for. The card
 * stays locked only if these are lost or cannot be sent, or if every answer was lost while the lock
 * was being taken. The next EEPROM access by any manager of this library then frees it.
 * @{
 */

/**
 * Reads one 32-bit word of the EEPROM.
 *
 * @param[in] id           card ID
 * @param[in] addr         byte address, a multiple of 4, at most 2044
 * @param[out] data        receives the word; untouched on failure
 * @param[in] retry_param  NULL for the configured values
 * @param[in] flags        QNM_FLAG_LIVECHECK, QNM_FLAG_FORCELOCK
 * @retval QNM_API_SUCCESS    the word was read
 * @retval QNM_API_EINVAL     addr is no multiple of 4 or above 2044, data is NULL, or the retry
 *                            interval is 0
 * @retval QNM_API_EBUSY      another party keeps the lock, or another process accesses cards by the
 *                            same port
 * @retval QNM_API_ETIMEDOUT  no answer, or the EEPROM did not get ready, or the card did not take
 *                            the request for its lock, or the lock could not be had by force
 * @retval QNM_API_EPROTO     the card refused the access
 */
qnm_api_code_t qnm_read_eeprom(uint64_t id, uint32_t addr, uint32_t* data,
                               const qnm_retry_t* retry_param, uint32_t flags);

/**
 * Writes one 32-bit word of the EEPROM.
 *
 * @param[in] id           card ID
 * @param[in] addr         byte address, a multiple of 4, at most 2044
 * @param[in] data         the word
 * @param[in] retry_param  NULL for the configured values
 * @param[in] flags        QNM_FLAG_LIVECHECK, QNM_FLAG_VERIFY, QNM_FLAG_FORCELOCK
 * @retval QNM_API_SUCCESS    the card reported the write complete, or with QNM_FLAG_VERIFY the word
 *                            was read back
 * @retval QNM_API_EINVAL     addr is no multiple of 4 or above 2044, or the retry interval is 0
 * @retval QNM_API_EBUSY      another party keeps the lock, or another process accesses cards by the
 *                            same port
 * @retval QNM_API_ETIMEDOUT  as for qnm_read_eeprom(), or with QNM_FLAG_VERIFY another word was
 *                            read back after every attempt
 * @retval QNM_API_EPROTO     the card refused the access
 */
qnm_api_code_t qnm_write_eeprom(uint64_t id, uint32_t addr, uint32_t data,
                                const qnm_retry_t* retry_param, uint32_t flags);

/**
 * Reads consecutive EEPROM words: those from startaddr up to, not including, endaddr. The EEPROM
 * lock is taken and released for every word, so that other parties get their turn.
 *
 * @param[in] id           card ID
 * @param[in] startaddr    a multiple of 4, at most 2044
 * @param[in] endaddr      a multiple of 4 above startaddr, at most 2048
 * @param[out] data        the caller's array; its elements are filled in ascending order of
 *                         address, up to the one that failed
 * @param[in,out] len      in: size of the array in bytes, at least endaddr - startaddr; out: bytes
 *                         read, on every result; after a failure, those read before it, maybe 0
 * @param[in] retry_param  NULL for the configured values
 * @param[in] flags        QNM_FLAG_LIVECHECK, QNM_FLAG_FORCELOCK
 * @retval QNM_API_SUCCESS    all words were read
 * @retval QNM_API_EINVAL     an address, the order of the two or *len does not fit, data or len is
 *                            NULL, or the retry interval is 0
 * @retval QNM_API_EBUSY      another party keeps the lock, or another process accesses cards by the
 *                            same port
 * @retval QNM_API_ETIMEDOUT  a word was not read for one of the reasons of qnm_read_eeprom()
 * @retval QNM_API_EPROTO     the card refused the access to a word
 */
qnm_api_code_t qnm_dump_eeprom(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t* data,
                               size_t* len, const qnm_retry_t* retry_param, uint32_t flags);

/**
 * Frees a card's EEPROM lock that another party holds, after that party has gone without releasing
 * it. Uses the configured retry parameters and waits for no other call: an EEPROM call of this
 * manager that is under way on the same card may fail because of it. A card whose monitoring is
 * stopped is refused with QNM_API_ENOLINK.
 *
 * @param[in] id  card ID
 * @retval QNM_API_SUCCESS    no other party holds the lock
 * @retval QNM_API_ETIMEDOUT  no answer, or the lock was kept
 * @retval QNM_API_EBUSY      another process accesses cards by the same port
 */
qnm_api_code_t qnm_unlock_eeprom(uint64_t id);

/** @} */

/**
 * Sets a card's VLAN ID (its group). With QNM_FLAG_VERIFY the call waits until the card announces
 * the new ID.
 *
 * @param[in] id           card ID
 * @param[in] vlanid       16 to 4094
 * @param[in] retry_param  with QNM_FLAG_VERIFY: how long to wait before sending again, and how
 *                         often; NULL for the configured values
 * @param[in] flags        QNM_FLAG_LIVECHECK, QNM_FLAG_VERIFY
 * @retval QNM_API_SUCCESS    the request was sent, or with QNM_FLAG_VERIFY the ID was announced
 * @retval QNM_API_EINVAL     vlanid out of range, or the retry interval is 0
 * @retval QNM_API_ETIMEDOUT  QNM_FLAG_VERIFY: the card did not announce the new ID
 * @retval QNM_API_EPROTO     QNM_FLAG_VERIFY: the card was deleted meanwhile
 * @retval QNM_API_EBUSY      another process accesses cards by the same port
 */
qnm_api_code_t qnm_set_vlanid(uint64_t id, uint16_t vlanid, const qnm_retry_t* retry_param,
                              uint32_t flags);

/**
 * Sends a reset frame with a status byte to the broadcast address on the card's VLAN, over the
 * card's path. No answer is awaited. A card whose monitoring is stopped is refused with
 * QNM_API_ENOLINK.
 *
 * @param[in] id           card ID
 * @param[in] status       a byte that travels in the frame as it is
 * @param[in] retry_param  has no effect; may be NULL
 * @param[in] flags        have no effect
 * @retval QNM_API_SUCCESS  the frame was sent
 * @retval QNM_API_EBUSY    another process accesses cards by the same port
 */
qnm_api_code_t qnm_send_resetframe(uint64_t id, unsigned char status,
                                   const qnm_retry_t* retry_param, uint32_t flags);

/**
 * Writes one MMS page of a multi-root QNIO card. The card does not acknowledge it.
 *
 * @param[in] id     card ID
 * @param[in] page   0 to 1023
 * @param[in] data   the page: 32 words of 32 bits, each in this machine's byte order
 * @param[in] flags  QNM_FLAG_LIVECHECK
 * @retval QNM_API_SUCCESS  the page was sent
 * @retval QNM_API_EINVAL   page out of range, or data is NULL
 * @retval QNM_API_ENOENT   the ID is not that of a multi-root QNIO card
 * @retval QNM_API_EBUSY    another process accesses cards by the same port
 */
qnm_api_code_t qnm_write_mmspage(uint64_t id, uint32_t page, uint32_t* data, uint32_t flags);

/** @} */

/* ---- Logging and statistics ------------------------------------------------------------------ */

/**
 * Changes the running log level.
 *
 * @param[in] log_level  QNM_LOGLVL_NONE (back to the configured level) to QNM_LOGLVL_TRACE
 * @retval QNM_API_SUCCESS  the level is in force
 * @retval QNM_API_EINVAL   log_level out of range
 * @retval QNM_API_ENOSYS   the manager is not running
 */
qnm_api_code_t qnm_set_loglevel(qnm_log_level_t log_level);

/**
 * Writes the status dump (state, ports, cards, memory, events, frames, results, blacklist,
 * configuration) to the statistics log, on the calling thread.
 *
 * @param[in] verbose  non-zero adds every field of every card and the results per call
 * @retval QNM_API_SUCCESS  the dump was written
 * @retval QNM_API_ENOSYS   the manager is not running; nothing was written
 */
qnm_api_code_t qnm_stdump(uint32_t verbose);

/**
 * Configures log4cxx from conf/qnm_log4c.properties below a directory. qnm_init_manager() does
 * this by itself; a host program calls it only to use the log functions below before that.
 *
 * If the file is missing, cannot be read or leaves one of the three loggers without an appender
 * that can write, one line on standard error names the file and the error, and the lines of that
 * logger are lost. The line is not repeated while the same error persists. A logger whose level is
 * OFF needs no appender.
 *
 * @param[in] path  as for qnm_init_manager()
 * @retval QNM_API_SUCCESS  the file is there, whatever is in it
 * @retval QNM_API_EPROTO   path too long, the file is missing or no regular file, or the process is
 *                          ending
 */
qnm_api_code_t qnm_log_init(const char* path);

/**
 * The library's log, open to the host program. Each call formats like printf() and writes one line
 * of at most 511 characters when the running level allows: qnm_log_fatal() to qnm_log_trace() to
 * the logger "logfile", qnm_syslog_fatal() to qnm_syslog_trace() to "syslogfile", each at the level
 * of its name. qnm_statslog() writes to "statslogfile" at any level. None of them fails, and none
 * needs a running manager.
 *
 * @param[in] fmt  format as for printf(), without a line end; its arguments follow
 */
void qnm_log_fatal(const char* fmt, ...) QNM_PRINTF_FORMAT;
void qnm_log_error(const char* fmt, ...) QNM_PRINTF_FORMAT;    /**< as qnm_log_fatal() */
void qnm_log_warn(const char* fmt, ...) QNM_PRINTF_FORMAT;     /**< as qnm_log_fatal() */
void qnm_log_info(const char* fmt, ...) QNM_PRINTF_FORMAT;     /**< as qnm_log_fatal() */
void qnm_log_debug(const char* fmt, ...) QNM_PRINTF_FORMAT;    /**< as qnm_log_fatal() */
void qnm_log_trace(const char* fmt, ...) QNM_PRINTF_FORMAT;    /**< as qnm_log_fatal() */
void qnm_syslog_fatal(const char* fmt, ...) QNM_PRINTF_FORMAT; /**< as qnm_log_fatal() */
void qnm_syslog_error(const char* fmt, ...) QNM_PRINTF_FORMAT; /**< as qnm_log_fatal() */
void qnm_syslog_warn(const char* fmt, ...) QNM_PRINTF_FORMAT;  /**< as qnm_log_fatal() */
void qnm_syslog_info(const char* fmt, ...) QNM_PRINTF_FORMAT;  /**< as qnm_log_fatal() */
void qnm_syslog_debug(const char* fmt, ...) QNM_PRINTF_FORMAT; /**< as qnm_log_fatal() */
void qnm_syslog_trace(const char* fmt, ...) QNM_PRINTF_FORMAT; /**< as qnm_log_fatal() */
void qnm_statslog(const char* fmt, ...) QNM_PRINTF_FORMAT;     /**< as qnm_log_fatal() */

/* ---- Key comparison -------------------------------------------------------------------------- */

/** An untyped pointer; carries a key by value. */
typedef void* qnm_ptr_t;
typedef const void* qnm_cptr_t; /**< as qnm_ptr_t */

/**
 * Compares two keys that are passed by value in the pointers (they are not dereferenced): the low
 * 32 bits or all 64, signed or unsigned, as the name of the function says.
 *
 * @param[in] a  the first key
 * @param[in] b  the second key
 * @return -1, 0 or 1 when the first key is smaller than, equal to or larger than the second
 */
int qnm_rbtree_int32_compare(qnm_cptr_t a, qnm_cptr_t b);
int qnm_rbtree_uint32_compare(qnm_cptr_t a, qnm_cptr_t b); /**< as qnm_rbtree_int32_compare() */
int qnm_rbtree_int64_compare(qnm_cptr_t a, qnm_cptr_t b);  /**< as qnm_rbtree_int32_compare() */
int qnm_rbtree_uint64_compare(qnm_cptr_t a, qnm_cptr_t b); /**< as qnm_rbtree_int32_compare() */

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
