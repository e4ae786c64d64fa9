/* The channel and container functions called from C (built as strict C99). */
#include <string.h>

#include "kvl_channel.h"

/* 0 when every step behaves; otherwise the number of the failing step. */
int kvlChannelCApiRoundTrip(void) {
    chanTok channel = NULL;
    EciContainerInfo info;
    char name[ECI_CHANNEL_NAME_LENGTH + 1];
    char data[8];
    size_t bytesRead = 0;
    int step = 0;

    if (ECI_createChannel("C_CHANNEL", &channel) != ECI_NO_ERROR) return 1;
    if (ECI_createContainer(channel, "C_BITS", ECI_BIT, 0, "abcdef", 6) != ECI_NO_ERROR) step = 2;
    else if (ECI_getFirstContainer(channel, &info) != ECI_NO_ERROR || strcmp(info.name, "C_BITS") != 0 ||
             info.dataLength != 6)
        step = 3;
    else if (ECI_getContainerData(channel, "C_BITS", data, sizeof data, 2, &bytesRead) != ECI_NO_ERROR ||
             bytesRead != 4 || memcmp(data, "cdef", 4) != 0)
        step = 4;
    else if (ECI_getChannelName(channel, name) != ECI_NO_ERROR || strcmp(name, "C_CHANNEL") != 0)
        step = 5;
    if (ECI_deleteChannel(&channel) != ECI_NO_ERROR || channel != NULL) return step ? step : 6;
    return step;
}
