/*
 * Fetching an image to "/tmp/firmware" (image-file.h), over slow and broken links too: what a try has brought
 * is kept, and the next one asks for the rest as long as the file is the same one (resume.h).
 */
#pragma once

#include "transfer/outcome.h"

enum { DOWNLOAD_SECONDS = 4 * 3600 }; /* for all tries together */

/* Downloads; blocks until it is complete, given up or stopped by a signal. Nothing is left at IMAGE_PATH
 * unless it is complete. */
transfer_outcome download_image(const char *url);
