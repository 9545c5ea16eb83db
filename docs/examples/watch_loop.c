/*
 * watch_loop.c - a host program around poll(): one line for every event, until SIGINT or SIGTERM.
 *
 * Callbacks run on the library's event thread, and while one runs further events wait. So
 * on_event() only puts the event into a queue and raises an eventfd; all work is done by the loop,
 * which waits for the eventfd as for everything else. Signals come to the loop by a descriptor as
 * well, which lets the program end as orderly as after any other input.
 */
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <poll.h>
#include <pthread.h>
#include <qnm.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

struct event {
    struct event* next;
    uint64_t id;
    qnm_evt_type_t type;
};

/* What the threads share. Whoever puts something in raises the eventfd afterwards. */
struct bridge {
    const char* dir;
    int raised; /* the eventfd */
    pthread_mutex_t mutex;
    struct event* first;
    struct event** end; /* where the next event is hung in */
    unsigned lost;      /* events that there was no memory for */
    int ended;          /* the manager has returned, with this result: */
    qnm_api_code_t result;
};

/* What the loop takes out of the bridge at a time. */
struct batch {
    struct event* first;
    unsigned lost;
    int ended;
};

static void raise_fd(struct bridge* bridge) {
    eventfd_write(bridge->raised, 1); /* can only fail with the counter full, that is, raised */
}

static void on_event(uint64_t id, qnm_evt_type_t type, void* arg) {
    struct bridge* bridge = arg;
    struct event* event = malloc(sizeof *event);
    if (event != NULL) *event = (struct event){NULL, id, type};
    pthread_mutex_lock(&bridge->mutex);
    if (event != NULL) {
        *bridge->end = event;
        bridge->end = &event->next;
    } else {
        bridge->lost++;
    }
    pthread_mutex_unlock(&bridge->mutex);
    raise_fd(bridge);
}

static void* run(void* arg) {
    struct bridge* bridge = arg;
    qnm_api_code_t result = qnm_init_manager(bridge->dir, QNM_LOGLVL_NONE);
    pthread_mutex_lock(&bridge->mutex);
    bridge->ended = 1;
    bridge->result = result;
    pthread_mutex_unlock(&bridge->mutex);
    raise_fd(bridge);
    return NULL;
}

/* Lowers the eventfd before it looks: what is put in later raises it again. */
static struct batch take(struct bridge* bridge) {
    eventfd_t times;
    struct batch taken;
    eventfd_read(bridge->raised, &times); /* must not block: EFD_NONBLOCK */
    pthread_mutex_lock(&bridge->mutex);
    taken = (struct batch){bridge->first, bridge->lost, bridge->ended};
    bridge->first = NULL;
    bridge->end = &bridge->first;
    bridge->lost = 0;
    pthread_mutex_unlock(&bridge->mutex);
    return taken;
}

/* The four paths P0M0, P0M1, P1M0, P1M1 as letters: C connected, D disconnected. */
static void print_paths(const qnm_com_dev_t* dev) {
    for (int port = 0; port < 2; port++)
        for (int path = 0; path < 2; path++)
            putchar(dev->ecd_state[port][path] == 1 ? 'C' : 'D');
}

/* The card as it is now, which may be later than the event. */
static void print_card(uint64_t id) {
    qnm_qnsv_t qnsv;
    qnm_qnio_t qnio;
    if (qnm_get_qnsv(id, &qnsv) == QNM_API_SUCCESS) {
        printf(" qnsv ");
        print_paths(&qnsv.esv_com_dev);
    } else if (qnm_get_qnio(id, &qnio) == QNM_API_SUCCESS) {
        printf(" qnio ");
        print_paths(&qnio.eio_com_dev);
    }
}

/* Prints and frees what was taken; tells whether the manager has ended. */
static int handle(struct batch taken) {
    for (struct event* event = taken.first; event != NULL; event = taken.first) {
        taken.first = event->next;
        printf("0x%012" PRIx64 " %s", event->id, qnm_event_name(event->type));
        print_card(event->id);
        putchar('\n');
        free(event);
    }
    if (taken.lost > 0) printf("%u events lost\n", taken.lost);
    fflush(stdout);
    return taken.ended;
}

/* Until a signal comes or the manager ends by itself. */
static void loop(struct bridge* bridge, int signals) {
    struct pollfd waited[] = {{signals, POLLIN, 0}, {bridge->raised, POLLIN, 0}};
    while (waited[0].revents == 0) {
        if (poll(waited, 2, -1) < 0) continue;
        if (waited[1].revents != 0 && handle(take(bridge))) return;
    }
}

/* Waits until the manager takes callbacks, and lets frames in; false when it has ended before. */
static int start(struct bridge* bridge) {
    qnm_cbid_t registration;
    for (int type = QNM_EVT_NEWDEVINFO; type < QNM_EVT_MAX; type++) {
        while (qnm_register_callback(type, on_event, bridge, &registration) == QNM_API_ENOSYS) {
            if (handle(take(bridge))) return 0;
            poll(NULL, 0, 10); /* the manager is still starting */
        }
    }
    return qnm_start_manager() == QNM_API_SUCCESS;
}

/* SIGINT and SIGTERM by a descriptor. Threads made later inherit that they are blocked. */
static int open_signals(void) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, NULL);
    return signalfd(-1, &ends, SFD_CLOEXEC);
}

int main(int argc, char** argv) {
    struct bridge bridge = {.mutex = PTHREAD_MUTEX_INITIALIZER, .end = &bridge.first};
    pthread_t manager;
    if (argc != 2) return fprintf(stderr, "usage: watch_loop DIRECTORY\n"), 2;
    int signals = open_signals();
    bridge.dir = argv[1];
    bridge.raised = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signals < 0 || bridge.raised < 0) return perror("watch_loop"), 1;
    qnm_log_init(bridge.dir); /* so that the first calls have somewhere to log to */
    int failure = pthread_create(&manager, NULL, run, &bridge);
    if (failure != 0) return fprintf(stderr, "watch_loop: %s\n", strerror(failure)), 1;

    if (start(&bridge)) loop(&bridge, signals);
    qnm_fini_manager(); /* after a signal; does no harm to a manager that has ended */
    pthread_join(manager, NULL);
    handle(take(&bridge)); /* what came until the end */
    if (bridge.result != QNM_API_SUCCESS) {
        fprintf(stderr, "watch_loop: the manager ended: %s; the log or a line above tells why\n",
                qnm_retcode_text(bridge.result));
    }
    close(bridge.raised);
    close(signals);
    return bridge.result == QNM_API_SUCCESS ? 0 : 1;
}
