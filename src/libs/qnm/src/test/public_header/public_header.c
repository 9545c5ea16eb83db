/*
 * public_header.c - the public header in C99: every declaration has the type a host program relies
 * on, and every function can be linked.
 */
#include <stdio.h>
#include <string.h>

#include "qnm.h"

int check_public_header_in_cpp(void);

/* One function pointer per call: a declaration of another type is an error here. */
static const struct calls {
    qnm_api_code_t (*err2retcode)(int);
    qnm_api_code_t (*init_manager)(const char*, qnm_log_level_t);
    qnm_api_code_t (*of_manager[2])(void);
    qnm_api_code_t (*get_qnsv)(uint64_t, qnm_qnsv_t*);
    qnm_api_code_t (*get_qnio)(uint64_t, qnm_qnio_t*);
    qnm_api_code_t (*ids[2])(uint64_t**, uint32_t*);
    qnm_api_code_t (*update_ids[2])(uint64_t, uint64_t**, uint32_t*);
    qnm_api_code_t (*group_ids[2])(uint16_t, uint64_t**, uint32_t*);
    qnm_api_code_t (*by_id[4])(uint64_t);
    qnm_api_code_t (*free_idlist)(uint64_t*);
    qnm_api_code_t (*register_callback)(qnm_evt_type_t, qnm_cbfunc_t, const void*, qnm_cbid_t*);
    qnm_api_code_t (*unregister_callback)(qnm_cbid_t);
    qnm_api_code_t (*set_loglevel)(qnm_log_level_t);
    qnm_api_code_t (*stdump)(uint32_t);
    qnm_api_code_t (*log_init)(const char*);
    void (*log[13])(const char*, ...);
    int (*compare[4])(qnm_cptr_t, qnm_cptr_t);
} k_calls = {
    qnm_err2retcode,
    qnm_init_manager,
    {qnm_start_manager, qnm_fini_manager},
    qnm_get_qnsv,
    qnm_get_qnio,
    {qnm_get_qnsvids, qnm_get_qnioids},
    {qnm_get_update_qnsvids, qnm_get_update_qnioids},
    {qnm_get_group_qnsvids, qnm_get_group_qnioids},
    {qnm_delete_qnsv, qnm_delete_qnio, qnm_stop_monitor, qnm_restart_monitor},
    qnm_free_idlist,
    qnm_register_callback,
    qnm_unregister_callback,
    qnm_set_loglevel,
    qnm_stdump,
    qnm_log_init,
    {qnm_log_fatal, qnm_log_error, qnm_log_warn, qnm_log_info, qnm_log_debug, qnm_log_trace,
     qnm_syslog_fatal, qnm_syslog_error, qnm_syslog_warn, qnm_syslog_info, qnm_syslog_debug,
     qnm_syslog_trace, qnm_statslog},
    {qnm_rbtree_int32_compare, qnm_rbtree_uint32_compare, qnm_rbtree_int64_compare,
     qnm_rbtree_uint64_compare},
};

/* The numbers are part of the binary interface. */
static const int k_values[][2] = {
    {QNM_API_SUCCESS, 0},
    {QNM_API_EINVAL, 1},
    {QNM_API_ERANGE, 2},
    {QNM_API_ENOENT, 3},
    {QNM_API_ENOLINK, 4},
    {QNM_API_ENOMEM, 5},
    {QNM_API_EPROTO, 6},
    {QNM_API_ETIMEDOUT, 7},
    {QNM_API_EBUSY, 8},
    {QNM_API_ENOSYS, 9},
    {QNM_API_CODE_MAX, 10},
    {QNM_LOGLVL_NONE, -1},
    {QNM_LOGLVL_FATAL, 0},
    {QNM_LOGLVL_ERROR, 1},
    {QNM_LOGLVL_WARN, 2},
    {QNM_LOGLVL_INFO, 3},
    {QNM_LOGLVL_DEBUG, 4},
    {QNM_LOGLVL_TRACE, 5},
    {QNM_EVT_NEWDEVINFO, 0},
    {QNM_EVT_UPDATEDEVINFO, 1},
    {QNM_EVT_CONNECTIONCHANGE, 2},
    {QNM_EVT_MAJORMINORERROR, 3},
    {QNM_EVT_PATHSTATECHANGE, 4},
    {QNM_EVT_CHANNELSTATECHANGE, 5},
    {QNM_EVT_MAX, 6},
    {(int)sizeof(qnm_retry_t), 8},
};

static const struct {
    int value;
    const char* text;
} k_code_texts[] =
    {
        {QNM_API_SUCCESS, "success"},
        {QNM_API_EINVAL, "invalid argument"},
        {QNM_API_ERANGE, "value out of range, or a list longer than accepted"},
        {QNM_API_ENOENT, "no such card or entry"},
        {QNM_API_ENOLINK, "no link to the card"},
        {QNM_API_ENOMEM, "out of memory"},
        {QNM_API_EPROTO, "protocol or internal error"},
        {QNM_API_ETIMEDOUT, "no answer in time"},
        {QNM_API_EBUSY, "busy"},
        {QNM_API_ENOSYS, "the manager is not running"},
        {QNM_API_CODE_MAX, "unknown result code"},
        {-1, "unknown result code"},
        {1000, "unknown result code"},
},
  k_event_names[] = {
      {QNM_EVT_NEWDEVINFO, "NEWDEVINFO"},
      {QNM_EVT_UPDATEDEVINFO, "UPDATEDEVINFO"},
      {QNM_EVT_CONNECTIONCHANGE, "CONNECTIONCHANGE"},
      {QNM_EVT_MAJORMINORERROR, "MAJORMINORERROR"},
      {QNM_EVT_PATHSTATECHANGE, "PATHSTATECHANGE"},
      {QNM_EVT_CHANNELSTATECHANGE, "CHANNELSTATECHANGE"},
      {QNM_EVT_MAX, "unknown event type"},
      {-1, "unknown event type"},
      {1000, "unknown event type"},
};

static int check_text(int value, const char* got, const char* expected) {
    if (got != NULL && strcmp(got, expected) == 0) return 0;
    printf("%d is \"%s\", not \"%s\"\n", value, got != NULL ? got : "NULL", expected);
    return 1;
}

static int check_texts(void) {
    int failures = 0;
    size_t i;
    for (i = 0; i < sizeof k_code_texts / sizeof k_code_texts[0]; i++) {
        const int value = k_code_texts[i].value;
        failures +=
            check_text(value, qnm_retcode_text((qnm_api_code_t)value), k_code_texts[i].text);
    }
    for (i = 0; i < sizeof k_event_names / sizeof k_event_names[0]; i++) {
        const int value = k_event_names[i].value;
        failures += check_text(value, qnm_event_name((qnm_evt_type_t)value), k_event_names[i].text);
    }
    return failures;
}

/* The text is that of the numbers, and what packages, soname and documents are called by. */
static int check_version(void) {
    char numbers[32];
    snprintf(numbers, sizeof numbers, "%d.%d.%d", QNM_VERSION_MAJOR, QNM_VERSION_MINOR,
             QNM_VERSION_PATCH);
    if (strcmp(QNM_VERSION, numbers) == 0 && strcmp(QNM_VERSION, PACKAGED_VERSION) == 0) return 0;
    printf("QNM_VERSION is %s, its numbers are %s, packages have %s\n", QNM_VERSION, numbers,
           PACKAGED_VERSION);
    return 1;
}

int main(void) {
    int failures = check_version() + check_texts();
    size_t i;
    for (i = 0; i < sizeof k_values / sizeof k_values[0]; i++) {
        if (k_values[i][0] != k_values[i][1]) {
            printf("row %u: %d, not %d\n", (unsigned)i, k_values[i][0], k_values[i][1]);
            failures++;
        }
    }
    if (k_calls.err2retcode(110) != QNM_API_ETIMEDOUT) {
        printf("qnm_err2retcode(110) is not QNM_API_ETIMEDOUT\n");
        failures++;
    }
    if (k_calls.of_manager[0]() != QNM_API_ENOSYS) {
        printf("qnm_start_manager() without a manager is not QNM_API_ENOSYS\n");
        failures++;
    }
    failures += check_public_header_in_cpp();
    return failures != 0;
}
