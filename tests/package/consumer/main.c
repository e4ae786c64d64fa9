/* A program built against the installed package: every public C header
 * compiles, the library loads, and the version it reports is the package's. */
#include <stdio.h>
#include <string.h>

#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvl_esi.h"
#include "kvl_ext.h"
#include "kvlclient.h"

int main(void) {
    char* version = NULL;
    char name[KVL_RC_STRING_LENGTH];
    int rc = KVL_getDLLVersion(&version);
    if (rc != KVL_OK || version == NULL) {
        printf("KVL_getDLLVersion: rc=%d\n", rc);
        return 1;
    }
    printf("kvlclient %s, package %s\n", version, EXPECTED_VERSION);
    if (strcmp(version, EXPECTED_VERSION) != 0) return 1;
    KVL_getRcString(ECI_ERR_INVALID_VERSION, name);
    printf("-21 is %s\n", name);
    return strcmp(name, "ECI_ERR_INVALID_VERSION") == 0 ? 0 : 1;
}
