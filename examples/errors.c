/* What failures look like: every function returns a code, KVL_getRcString
 * names it, and a program's abend code comes back in eci_abend.
 * Usage: kvl_errors_example HOST PORT */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kvl_eci.h"
#include "kvlclient.h"

static void prepare(EciParms* parms, const char* program8, char* commarea, short length) {
    memset(parms, 0, sizeof *parms);
    parms->eci_call_type = ECI_SYNC;
    parms->eci_version = 6;
    memcpy(parms->eci_program, program8, 8); /* 8 characters, blank-padded */
    parms->eci_commarea = commarea;
    parms->eci_commarea_length = length;
}

int main(int argc, char** argv) {
    gwTok token = NULL;
    char name[KVL_RC_STRING_LENGTH];
    char commarea[8] = "oops";
    EciParms parms;
    int rc;

    setvbuf(stdout, NULL, _IONBF, 0);
    if (argc < 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    /* Arguments are checked before anything is sent. */
    rc = KVL_openRemoteGatewayConnection(argv[1], 0, &token, 10);
    printf("open with port 0: rc=%d (%s)\n", rc, KVL_getRcString(rc, name));

    rc = KVL_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &token, 10);
    if (rc != KVL_OK) return 1;

    /* The block's version must suit the call type: 3..6 for ECI_SYNC, 6 for the others. */
    prepare(&parms, "ECHO    ", commarea, (short)sizeof commarea);
    parms.eci_version = 2;
    rc = KVL_ECI_Execute(token, &parms);
    printf("ECI_SYNC with eci_version 2: rc=%d (%s)\n", rc, KVL_getRcString(rc, name));

    /* The server's own failures: the program ended abnormally with an abend code. */
    prepare(&parms, "ABEND   ", commarea, (short)sizeof commarea);
    rc = KVL_ECI_Execute(token, &parms);
    printf("ABEND: rc=%d (%s), abend code %.4s\n", rc, KVL_getRcString(rc, name), parms.eci_abend);

    /* The Gateway's: a server it does not know. */
    prepare(&parms, "ECHO    ", commarea, (short)sizeof commarea);
    memcpy(parms.eci_server_name, "NOSUCH  ", 8);
    rc = KVL_ECI_Execute(token, &parms);
    printf("unknown server: rc=%d (%s)\n", rc, KVL_getRcString(rc, name));

    KVL_closeGatewayConnection(&token);
    /* A closed connection is refused, never dereferenced. */
    rc = KVL_ECI_Execute(token, &parms);
    printf("after close: rc=%d (%s)\n", rc, KVL_getRcString(rc, name));
    return 0;
}
