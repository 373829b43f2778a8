#include <cstdio>
#include <cstring>

#include "device/board.h"
#include "device/tavosutils.h"

int get_serial_number(char *buffer, int *length)
{
    const char *number = board_text("serialNumber");
    if (!number)
        return -1;
    snprintf(buffer, SERIAL_NUMBER_SIZE, "%s", number);
    *length = static_cast<int>(strlen(buffer));
    return 0;
}
