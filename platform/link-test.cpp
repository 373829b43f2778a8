#include "platform/link-test.h"

int platform_start_link_test(void) { return 0; }
