// qnm_config.h - the configuration record and the reading of qnm.conf.
//
// qnm_config is filled during start-up and only read afterwards, by any thread, without a lock.
#pragma once

#include <cstdint>

#include "qnm.h"
#include "qnm_export.h"

typedef struct qnm_conf {
    char ether_port_name[2][256];  // interface names of port 0 and port 1
    uint64_t broadcast_mac;        // destination of broadcast frames, 48 bits
    uint32_t ether_port_ifindex[2];
    uint32_t use_port_num_win;
    uint32_t use_port_num_linux;           // port 1 is opened only when this is 2
    uint32_t devinfo_check_interval;       // ms between keepalive checks
    uint32_t devinfo_expire_time;          // ms without DEVINFO before a path counts as lost
    uint32_t devinfo_flag_check_interval;  // ms between looks at the stop flag
    uint32_t vlan_check_interval;          // ms
    uint32_t frame_retry_interval;         // ms
    uint32_t frame_retry_count;
    uint32_t frame_retry_interval_lc;  // ms, live check
    uint32_t frame_retry_count_lc;
    uint32_t eeprom_id_number;
    uint32_t eeprom_retry_interval;  // ms
    uint32_t eeprom_retry_count;
    uint32_t eeprom_check_interval;  // ms
    uint32_t eeprom_check_retry_count;
    uint32_t eeprom_verify_count;
    uint32_t eeprom_verify_interval;  // ms
    uint32_t eeprom_lock_other_bit;   // bit mask of the other owners' lock bits
    uint32_t eeprom_rw_interval;      // ms
    uint32_t tag_min;
    uint32_t tag_max;
    uint32_t id_list_upper_limit;
    uint32_t log_level;  // used when the host passes QNM_LOGLVL_NONE
    uint32_t network_composition;
    uint32_t eeprom_type;
    uint32_t stats_interval;  // seconds between status dumps
    uint32_t stats_verbose_level;
    uint32_t force_lock_try_count;
    uint32_t register_verify_interval;  // ms
    uint32_t update_evt_mask;           // which changes raise an update event
    uint16_t ether_type;                // of all frames
} qnm_conf_t;

// One word per key: 1 once the key has been accepted from the file.
typedef struct qnm_flg {
    int ecf_ether_port_name;
    int ecf_broadcast_mac;
    int ecf_ether_port_ifindex;
    int ecf_devinfo_check_interval;
    int ecf_devinfo_expire_time;
    int ecf_devinfo_flag_check_interval;
    int ecf_vlan_check_interval;
    int ecf_frame_retry_interval;
    int ecf_frame_retry_count;
    int ecf_frame_retry_interval_lc;
    int ecf_frame_retry_count_lc;
    int ecf_eeprom_id_number;
    int ecf_eeprom_retry_interval;
    int ecf_eeprom_retry_count;
    int ecf_eeprom_check_interval;
    int ecf_eeprom_check_retry_count;
    int ecf_eeprom_verify_count;
    int ecf_eeprom_verify_interval;
    int ecf_eeprom_lock_other_bit;
    int ecf_eeprom_rw_interval;
    int ecf_tag_min;
    int ecf_tag_max;
    int ecf_id_list_upper_limit;
    int ecf_log_level;
    int ecf_network_composition;
    int ecf_eeprom_type;
    int ecf_stats_interval;
    int ecf_stats_verbose_level;
    int ecf_force_lock_try_count;
    int ecf_register_verify_interval;
    int ecf_update_evt_mask;
    int ecf_ether_type;
} qnm_conf_flag_t;

extern "C" {

extern QNM_EXPORTED qnm_conf_t qnm_config;
extern QNM_EXPORTED qnm_conf_flag_t qnm_flag;

// Stores all defaults. Always 0.
int _qnm_config_init(void);

// Reads the file on top of the defaults: 0; ENOENT if there is no such regular file (the defaults
// stay); EPROTO at the first bad line, which is logged.
int _qnm_config_read(char* path);

// Always 0.
int _qnm_config_fini(void);

// Write every value, one line each: to the log at info level, and into the status dump.
void _qnm_config_value_print(void);
void _qnm_config_stats_print(void);

}  // extern "C"
