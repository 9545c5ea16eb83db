/* host.c - a host program: reports cards that appear and paths that come and go, until Enter. */
#include <poll.h>
#include <pthread.h>
#include <qnm.h>
#include <stdio.h>

static int failed, ended; /* set when the manager has returned */
#define ENDED __atomic_load_n(&ended, __ATOMIC_SEQ_CST)

static void* run(void* dir) {
    qnm_api_code_t ret = qnm_init_manager(dir, QNM_LOGLVL_NONE); /* stays inside until the stop */
    failed = ret != QNM_API_SUCCESS;
    if (failed) fprintf(stderr, "the manager ended: %s\n", qnm_retcode_text(ret));
    __atomic_store_n(&ended, 1, __ATOMIC_SEQ_CST);
    return NULL;
}

static void on_event(uint64_t id, qnm_evt_type_t event, void* arg) {
    (void)arg; /* nothing was registered with it */
    printf("%s 0x%012lx\n", qnm_event_name(event), (unsigned long)id);
    fflush(stdout);
}

int main(int argc, char** argv) {
    pthread_t manager;
    qnm_cbid_t handle;
    if (argc != 2) return fprintf(stderr, "usage: host DIRECTORY\n"), 2;
    qnm_log_init(argv[1]); /* so that the first calls have somewhere to log to */
    if (pthread_create(&manager, NULL, run, argv[1]) != 0) return 1;
    for (int event = QNM_EVT_NEWDEVINFO; event < QNM_EVT_MAX && !ENDED; event++)
        while (qnm_register_callback(event, on_event, NULL, &handle) == QNM_API_ENOSYS && !ENDED)
            poll(NULL, 0, 10); /* the manager is still starting */
    qnm_start_manager();
    while (!ENDED && getchar() != '\n' && !feof(stdin))
        continue;
    qnm_fini_manager();
    pthread_join(manager, NULL);
    return failed;
}
