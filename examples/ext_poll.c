/* The extension API in an event loop: a connection opened with options and a
 * call deadline, a batch of asynchronous calls, and their replies collected
 * with poll() on the connection's completion handle.
 * Usage: kvl_ext_poll_example HOST PORT
 * The program names are those the Gateway emulator provides (ECHO, GATE). */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kvl_eci.h"
#include "kvl_ext.h"
#include "kvlclient.h"

#define REQUESTS 20

static void setField(char* field, size_t width, const char* text) {
    size_t n = strlen(text);
    memset(field, ' ', width);
    memcpy(field, text, n < width ? n : width);
}

static void prepare(EciParms* parms, short callType, const char* program, char* commarea, short length) {
    memset(parms, 0, sizeof *parms);
    parms->eci_call_type = callType;
    parms->eci_version = 6;
    setField(parms->eci_program, sizeof parms->eci_program, program);
    setField(parms->eci_tran_id, sizeof parms->eci_tran_id, "DEMO");
    parms->eci_commarea = commarea;
    parms->eci_commarea_length = length;
}

static int fail(const char* what, int rc) {
    char text[256];
    KVL_EXT_getLastErrorText(text, sizeof text);
    fprintf(stderr, "%s: rc=%d (%s) %s\n", what, rc, KVL_EXT_getRcName(rc), text);
    return 1;
}

int main(int argc, char** argv) {
    KVL_EXT_ConnectOptions options;
    gwTok token = NULL;
    KVL_EXT_Handle handle;
    EciParms parms;
    char commarea[32];
    int rc, i, collected = 0;

    if (argc != 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    KVL_EXT_initConnectOptions(&options);
    options.host = argv[1];
    options.port = atoi(argv[2]);
    options.connectTimeoutMs = 3000; /* every address of the host, all within 3 s */
    options.callDeadlineMs = 2000;   /* no synchronous call waits longer than 2 s */
    rc = KVL_EXT_openConnection(&options, &token);
    if (rc != KVL_OK) return fail("open", rc);

    /* A call the server never answers: the deadline ends it with -6. */
    strcpy(commarea, "never answered");
    prepare(&parms, ECI_SYNC, "GATE", commarea, (short)sizeof commarea);
    rc = KVL_ECI_Execute(token, &parms);
    if (rc == ECI_ERR_RESPONSE_TIMEOUT) {
        char text[128];
        KVL_EXT_getLastErrorText(text, sizeof text);
        printf("GATE: %s (the late reply, if any, is dropped)\n", text);
    }

    for (i = 0; i < REQUESTS; ++i) {
        snprintf(commarea, sizeof commarea, "request %d", i);
        prepare(&parms, ECI_ASYNC, "ECHO", commarea, (short)sizeof commarea);
        rc = KVL_ECI_Execute(token, &parms);
        if (rc != ECI_NO_ERROR) return fail("async ECHO", rc);
    }

    /* The handle is readable exactly while replies are queued: poll, then take
     * replies with the non-waiting retrieval until none is left. */
    rc = KVL_EXT_getCompletionHandle(token, &handle);
    if (rc != KVL_OK) return fail("completion handle", rc);
    while (collected < REQUESTS) {
        struct pollfd p;
        p.fd = (int)handle;
        p.events = POLLIN;
        p.revents = 0;
        if (poll(&p, 1, 5000) <= 0) break;
        for (;;) {
            memset(commarea, 0, sizeof commarea);
            prepare(&parms, ECI_GET_REPLY, "", commarea, (short)sizeof commarea);
            rc = KVL_ECI_Execute(token, &parms);
            if (rc == ECI_ERR_NO_REPLY) break;
            printf("reply %d: rc=%d \"%s\"\n", parms.eci_msg_qual, rc, commarea);
            ++collected;
        }
    }
    {
        KVL_EXT_Statistics stats;
        memset(&stats, 0, sizeof stats);
        stats.size = sizeof stats;
        if (KVL_EXT_getStatistics(token, &stats) == KVL_OK)
            printf("sent %llu async, p50 %llu us, p99 %llu us\n", (unsigned long long)stats.requestsSent[KVL_EXT_KIND_ECI_ASYNC],
                   (unsigned long long)stats.latencyP50Us, (unsigned long long)stats.latencyP99Us);
    }
    KVL_closeGatewayConnection(&token);
    return collected == REQUESTS ? 0 : 1;
}
