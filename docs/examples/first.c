/* first.c - the shortest host program: names each card that appears, until Enter. */
#include <poll.h>
#include <pthread.h>
#include <qnm.h>
#include <stdio.h>
#include <stdlib.h>

static void* run(void* dir) { /* on the library's own thread, until the stop */
    if (qnm_init_manager(dir, QNM_LOGLVL_NONE) != QNM_API_SUCCESS)
        fputs("the manager ended; its log or the line above tells why\n", stderr), exit(1);
    return NULL;
}

static void on_new(uint64_t id, qnm_evt_type_t event, void* arg) {
    (void)event, (void)arg; /* events of one type only, and nothing was registered with them */
    printf("card 0x%012lx\n", (unsigned long)id), fflush(stdout);
}

int main(int argc, char** argv) {
    pthread_t thread;
    qnm_cbid_t handle;
    if (argc != 2) return fputs("usage: first DIRECTORY\n", stderr), 2;
    qnm_log_init(argv[1]); /* so that the first calls have somewhere to log to */
    if (pthread_create(&thread, NULL, run, argv[1]) != 0) return 1;
    while (qnm_register_callback(QNM_EVT_NEWDEVINFO, on_new, NULL, &handle) == QNM_API_ENOSYS)
        poll(NULL, 0, 10); /* the manager is starting */
    qnm_start_manager();
    getchar();
    qnm_fini_manager();
    return pthread_join(thread, NULL);
}
