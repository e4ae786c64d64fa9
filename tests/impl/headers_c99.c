/* Every public header compiles as strict C99 (this file is built with -std=c99 -pedantic -Werror). */
#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvl_esi.h"
#include "kvlclient.h"

int kvlHeadersC99EciParmsSize(void) { return (int)sizeof(EciParms); }
int kvlHeadersC99EsiDetailsSize(void) { return (int)sizeof(esiDetails); }
