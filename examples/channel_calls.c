/* Builds a channel, sends it to a server program that adds, modifies and deletes
 * containers, and browses the channel that comes back.
 * Usage: kvl_channel_example HOST PORT
 * CHANCTL is the Gateway emulator's program that follows the commands in container EMUCTL. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvlclient.h"

static int report(const char* what, int rc) {
    char name[KVL_RC_STRING_LENGTH];
    printf("%s: rc=%d (%s)\n", what, rc, KVL_getRcString(rc, name));
    return rc;
}

static void setField(char* field, size_t width, const char* text) {
    size_t n = strlen(text);
    memset(field, ' ', width);
    memcpy(field, text, n < width ? n : width);
}

static void browse(chanTok channel) {
    EciContainerInfo info;
    char data[80];
    size_t got = 0;
    int rc = ECI_getFirstContainer(channel, &info);
    while (rc == ECI_NO_ERROR) {
        memset(data, 0, sizeof data);
        ECI_getContainerData(channel, info.name, data, sizeof data - 1, 0, &got);
        printf("  %-16s %-8s ccsid=%-5d %3llu bytes: %s\n", info.name, info.type == ECI_CHAR ? "ECI_CHAR" : "ECI_BIT",
               info.ccsid, (unsigned long long)info.dataLength, info.type == ECI_CHAR ? data : "(binary)");
        rc = ECI_getNextContainer(channel, &info);
    }
}

int main(int argc, char** argv) {
    static const char commands[] = "ADD RESULT the server added this;MOD GREETING modified by the server;DEL SCRATCH";
    static const unsigned char binary[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    gwTok token = NULL;
    chanTok channel = NULL;
    EciParms parms;
    int rc;

    setvbuf(stdout, NULL, _IONBF, 0);
    if (argc < 3) {
        fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    if (report("open", KVL_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &token, 10)) != KVL_OK) return 1;

    report("create channel DEMOCHANNEL", ECI_createChannel("DEMOCHANNEL", &channel));
    ECI_createContainer(channel, "GREETING", ECI_CHAR, 0, "hello", 5);
    ECI_createContainer(channel, "SCRATCH", ECI_CHAR, 0, "to be deleted", 13);
    ECI_createContainer(channel, "RAW", ECI_BIT, 0, binary, sizeof binary);
    ECI_createContainer(channel, "EMUCTL", ECI_CHAR, 0, commands, strlen(commands));
    printf("channel before the call (newest first):\n");
    browse(channel);

    memset(&parms, 0, sizeof parms);
    parms.eci_call_type = ECI_SYNC;
    parms.eci_version = 6;
    parms.eci_channel = channel;
    setField(parms.eci_program, sizeof parms.eci_program, "CHANCTL");
    setField(parms.eci_tran_id, sizeof parms.eci_tran_id, "DEMO");
    rc = report("synchronous channel call to CHANCTL", KVL_ECI_Execute_Channel(token, &parms));
    if (rc == ECI_NO_ERROR) {
        printf("channel after the call (added containers first):\n");
        browse(channel);
    }

    ECI_deleteChannel(&channel);
    KVL_closeGatewayConnection(&token);
    return rc == ECI_NO_ERROR ? 0 : 1;
}
