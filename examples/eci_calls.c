/* Calls programs on a Gateway's server: a synchronous echo, an asynchronous call
 * collected with a waiting retrieval, and a unit of work over two calls.
 * Usage: kvl_eci_example HOST PORT
 * The program names are those the Gateway emulator provides (ECHO, DELAY, LUW). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kvl_eci.h"
#include "kvlclient.h"

/* Fixed-width fields are padded with blanks and not terminated. */
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

static int report(const char* what, int rc) {
    char name[KVL_RC_STRING_LENGTH];
    printf("%s: rc=%d (%s)\n", what, rc, KVL_getRcString(rc, name));
    return rc;
}

static int syncEcho(gwTok token) {
    char commarea[32] = "Hello from the ECI example";
    EciParms parms;
    int rc;
    prepare(&parms, ECI_SYNC, "ECHO", commarea, (short)sizeof commarea);
    rc = report("synchronous ECHO", KVL_ECI_Execute(token, &parms));
    if (rc == ECI_NO_ERROR) printf("  reply: \"%s\"\n", commarea);
    return rc;
}

static int asyncCall(gwTok token) {
    /* DELAY reads its delay in milliseconds from the start of the COMMAREA. */
    char request[40] = "250 asynchronous request";
    char reply[40];
    EciParms parms;
    int rc;
    prepare(&parms, ECI_ASYNC, "DELAY", request, (short)sizeof request);
    rc = report("asynchronous DELAY sent", KVL_ECI_Execute(token, &parms));
    if (rc != ECI_NO_ERROR) return rc;
    printf("  message qualifier %d; the request buffer may now be reused\n", parms.eci_msg_qual);
    memset(request, 0, sizeof request);

    memset(reply, 0, sizeof reply);
    prepare(&parms, ECI_GET_REPLY_WAIT, "", reply, (short)sizeof reply);
    rc = report("ECI_GET_REPLY_WAIT", KVL_ECI_Execute(token, &parms));
    if (rc == ECI_NO_ERROR)
        printf("  reply to message qualifier %d, %d bytes: \"%s\"\n", parms.eci_msg_qual,
               parms.commarea_inbound_length, reply);
    return rc;
}

static int unitOfWork(gwTok token) {
    char commarea[32];
    EciParms parms;
    int rc;
    memset(commarea, 0, sizeof commarea);
    prepare(&parms, ECI_SYNC, "LUW", commarea, (short)sizeof commarea);
    parms.eci_extend_mode = ECI_EXTENDED;
    rc = report("first call of a unit of work (extend mode 1)", KVL_ECI_Execute(token, &parms));
    if (rc != ECI_NO_ERROR) return rc;
    printf("  LUW token %d, reply: \"%s\"\n", parms.eci_luw_token, commarea);

    /* Same block, same token: the call commits the unit of work; no COMMAREA travels. */
    parms.eci_extend_mode = ECI_COMMIT;
    rc = report("commit of the unit of work (extend mode 2)", KVL_ECI_Execute(token, &parms));
    return rc;
}

int main(int argc, char** argv) {
    gwTok token = NULL;
    int rc;
    int failures = 0;

    setvbuf(stdout, NULL, _IONBF, 0);
    if (argc < 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    rc = report("open", KVL_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &token, 10));
    if (rc != KVL_OK) return 1;

    failures += syncEcho(token) != ECI_NO_ERROR;
    failures += asyncCall(token) != ECI_NO_ERROR;
    failures += unitOfWork(token) != ECI_NO_ERROR;

    failures += report("close", KVL_closeGatewayConnection(&token)) != KVL_OK;
    return failures == 0 ? 0 : 1;
}
