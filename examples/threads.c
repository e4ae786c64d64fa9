/* Several threads share one connection: each makes synchronous calls and
 * waits only for its own replies, which may arrive in any order.
 * Usage: kvl_threads_example HOST PORT */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kvl_eci.h"
#include "kvlclient.h"

#ifdef _WIN32
#include <windows.h>
typedef HANDLE thread_t;
#define THREAD_RESULT DWORD WINAPI
#else
#include <pthread.h>
typedef pthread_t thread_t;
#define THREAD_RESULT void*
#endif

#define THREADS 4
#define CALLS 5

static gwTok token; /* one connection for every thread */

struct worker {
    int id;
    int failures;
};

static THREAD_RESULT work(void* arg) {
    struct worker* me = (struct worker*)arg;
    int call;
    for (call = 0; call < CALLS; ++call) {
        char commarea[32];
        char expected[32];
        EciParms parms; /* a parameter block per call in flight */
        memset(&parms, 0, sizeof parms);
        snprintf(commarea, sizeof commarea, "thread %d call %d", me->id, call);
        memcpy(expected, commarea, sizeof expected);
        parms.eci_call_type = ECI_SYNC;
        parms.eci_version = 6;
        memcpy(parms.eci_program, "ECHO    ", 8);
        parms.eci_commarea = commarea;
        parms.eci_commarea_length = (short)sizeof commarea;
        if (KVL_ECI_Execute(token, &parms) != ECI_NO_ERROR || memcmp(commarea, expected, sizeof commarea) != 0)
            me->failures++;
    }
    return 0;
}

static int start(thread_t* thread, struct worker* w) {
#ifdef _WIN32
    *thread = CreateThread(NULL, 0, work, w, 0, NULL);
    return *thread != NULL;
#else
    return pthread_create(thread, NULL, work, w) == 0;
#endif
}

static void join(thread_t thread) {
#ifdef _WIN32
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
#else
    pthread_join(thread, NULL);
#endif
}

int main(int argc, char** argv) {
    thread_t threads[THREADS];
    struct worker workers[THREADS];
    int i, failures = 0;

    if (argc < 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    if (KVL_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &token, 10) != KVL_OK) return 1;
    for (i = 0; i < THREADS; ++i) {
        workers[i].id = i;
        workers[i].failures = 0;
        if (!start(&threads[i], &workers[i])) return 1;
    }
    for (i = 0; i < THREADS; ++i) {
        join(threads[i]);
        failures += workers[i].failures;
    }
    printf("%d threads, %d calls each on one connection: %d failed\n", THREADS, CALLS, failures);
    KVL_closeGatewayConnection(&token);
    return failures == 0 ? 0 : 1;
}
