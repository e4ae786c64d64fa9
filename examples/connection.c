/* Opens a connection to a Gateway, prints its applid, dumps the library's state and closes it.
 * Usage: kvl_connection_example HOST PORT */
#include <stdio.h>
#include <stdlib.h>

#include "kvlclient.h"

int main(int argc, char** argv) {
    gwTok token = NULL;
    char* applid = NULL;
    char* qualifier = NULL;
    char name[KVL_RC_STRING_LENGTH];
    int rc;

    setvbuf(stdout, NULL, _IONBF, 0); /* keep order with the trace on standard error */
    if (argc < 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    rc = KVL_openRemoteGatewayConnectionApplid(argv[1], atoi(argv[2]), &token, 10, "DEMOAPP", "DEMOQUAL");
    printf("open %s:%s: rc=%d (%s)\n", argv[1], argv[2], rc, KVL_getRcString(rc, name));
    if (rc != KVL_OK) return 1;

    if (KVL_getApplid(token, &applid) == KVL_OK && KVL_getApplidQualifier(token, &qualifier) == KVL_OK)
        printf("connected with applid \"%s\", qualifier \"%s\"\n", applid, qualifier);

    /* The dump goes to the trace destination (standard error unless a trace file is set). */
    KVL_dumpState();

    rc = KVL_closeGatewayConnection(&token);
    printf("close: rc=%d (%s), token now %s\n", rc, KVL_getRcString(rc, name), token == NULL ? "NULL" : "set");
    return rc == KVL_OK ? 0 : 1;
}
