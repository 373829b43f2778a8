#include "device/scmintf.h"

void (*scmintf_print)(const char *file, int line, const char *message);
