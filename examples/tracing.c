/* Traces one program call to a file, then prints the file: the banner, the
 * ENTRY and EXIT lines of each function, and the masked password.
 * Usage: kvl_tracing_example HOST PORT TRACEFILE */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kvl_eci.h"
#include "kvlclient.h"

int main(int argc, char** argv) {
    gwTok token = NULL;
    char commarea[16] = "traced call";
    char line[512];
    EciParms parms;
    FILE* trace;
    int rc;

    if (argc < 4) {
        fprintf(stderr, "usage: %s HOST PORT TRACEFILE\n", argv[0]);
        return 2;
    }
    /* The same as KVL_CLIENT_TRACE_FILE=... KVL_CLIENT_TRACE_LEVEL=3 before the program starts. */
    remove(argv[3]);
    if (KVL_setAPITraceFile(argv[3]) != KVL_OK || KVL_setAPITraceLevel(3) != KVL_OK) return 1;

    rc = KVL_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &token, 10);
    if (rc == KVL_OK) {
        memset(&parms, 0, sizeof parms);
        parms.eci_call_type = ECI_SYNC;
        parms.eci_version = 6;
        memcpy(parms.eci_program, "ECHO    ", 8);
        memcpy(parms.eci_tran_id, "DEMO", 4);
        parms.eci_userid_ptr = "DEMOUSER";
        parms.eci_password_ptr = "SECRET1"; /* shown as asterisks, at every level */
        parms.eci_commarea = commarea;
        parms.eci_commarea_length = (short)sizeof commarea;
        rc = KVL_ECI_Execute(token, &parms);
        KVL_closeGatewayConnection(&token);
    }

    /* Back to standard error and off: closes the file. */
    KVL_setAPITraceLevel(0);
    KVL_setAPITraceFile(NULL);

    trace = fopen(argv[3], "r");
    if (trace == NULL) return 1;
    while (fgets(line, sizeof line, trace) != NULL) fputs(line, stdout);
    fclose(trace);
    return rc == ECI_NO_ERROR ? 0 : 1;
}
