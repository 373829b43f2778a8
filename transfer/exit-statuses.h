/*
 * How fw_dl and s3upload end. Scripts may rely on the numbers; they are in the manual pages.
 */
#pragma once

enum {
    TRANSFER_DONE = 0,        /* done, and reported */
    TRANSFER_GAVE_UP = 1,     /* the network or the server failed too often or for too long */
    TRANSFER_REFUSED = 2,     /* the server said no, or something that cannot be right */
    TRANSFER_UNTRUSTED = 3,   /* the server could not show that it is the one */
    TRANSFER_LOCAL = 4,       /* this device: no space, a file that cannot be written or read */
    TRANSFER_USAGE = 64,      /* the command line is wrong (sysexits.h) */
    TRANSFER_UNREPORTED = 75, /* nobody took the report; what was downloaded is gone again */
    TRANSFER_STOPPED = 128,   /* plus the number of the signal */
};
