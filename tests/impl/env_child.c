/* Loads the library with the environment it was given, makes two calls and dumps the state. */
#include <stddef.h>

#include "kvlclient.h"

int main(void) {
    char* version = NULL;
    KVL_getAPIVersion(&version);
    KVL_getAPIVersion(NULL);
    KVL_dumpState();
    return version != NULL ? 0 : 1;
}
