/* Verifies a good and a bad password and lists the servers that the Gateway knows.
 * Usage: kvl_security_example HOST PORT USERID GOODPASSWORD */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "kvl_esi.h"
#include "kvlclient.h"

static void printTime(const char* label, const EsiTime* t) {
    struct tm converted;
    char text[64];
    if (t->year == 0) {
        printf("  %-14s (not set)\n", label);
        return;
    }
    KVL_ESI_convertTime(t, &converted);
    /* tm_yday counts from 1 in this library; strftime is given the C convention. */
    converted.tm_yday -= 1;
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &converted);
    printf("  %-14s %s (day %d of the year)\n", label, text, converted.tm_yday + 1);
}

int main(int argc, char** argv) {
    gwTok token = NULL;
    char name[KVL_RC_STRING_LENGTH];
    esiDetails details;
    kvlSystemInfo systems[2];
    unsigned short count = 2;
    unsigned short i;
    int rc;

    setvbuf(stdout, NULL, _IONBF, 0); /* keep order with the trace on standard error */
    if (argc < 5) {
        fprintf(stderr, "usage: %s HOST PORT USERID GOODPASSWORD\n", argv[0]);
        return 2;
    }
    rc = KVL_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &token, 10);
    if (rc != KVL_OK) {
        printf("open: rc=%d (%s)\n", rc, KVL_getRcString(rc, name));
        return 1;
    }

    rc = KVL_ESI_verifyPassword(token, argv[3], argv[4], NULL, &details);
    printf("verify %s with the right password: rc=%d (%s)\n", argv[3], rc, KVL_getRcString(rc, name));
    if (rc == 0) {
        printTime("last verified", &details.lastVerifiedTime);
        printTime("expires", &details.expiryTime);
        printTime("last access", &details.lastAccessTime);
        printf("  %-14s %d\n", "invalid tries", details.invalidAttemptCount);
    }
    rc = KVL_ESI_verifyPassword(token, argv[3], "WRONGPW", NULL, &details);
    printf("verify %s with a wrong password: rc=%d (%s)\n", argv[3], rc, KVL_getRcString(rc, name));

    rc = KVL_listSystems(token, &count, systems);
    printf("list of servers (room for 2): rc=%d (%s), the Gateway knows %u\n", rc, KVL_getRcString(rc, name),
           (unsigned)count);
    for (i = 0; i < count && i < 2; ++i)
        printf("  %-8s %.61s\n", systems[i].SystemName, systems[i].SystemDescription);

    KVL_closeGatewayConnection(&token);
    return 0;
}
