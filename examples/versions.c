/* Loads the library and prints its versions and a few return-code names. */
#include <stdio.h>

#include "kvlclient.h"

int main(void) {
    char* api = NULL;
    char* dll = NULL;
    char name[KVL_RC_STRING_LENGTH];
    static const int codes[] = {KVL_OK, KVL_ERR_SYSTEM_ERROR, KVL_ERR_LOSTGWCON, KVL_ERR_GATEWAY_CLOSED, -12345};
    size_t i;

    if (KVL_getAPIVersion(&api) != KVL_OK || KVL_getDLLVersion(&dll) != KVL_OK) {
        fprintf(stderr, "cannot read the library versions\n");
        return 1;
    }
    printf("kvlclient DLL version %s, API version %s\n", dll, api);
    for (i = 0; i < sizeof codes / sizeof codes[0]; ++i) {
        printf("  rc %6d = %s\n", codes[i], KVL_getRcString(codes[i], name));
    }
    return 0;
}
