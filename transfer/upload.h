/*
 * Putting a file to a pre-signed URL. The file is read as it is sent; it is sent from its beginning with each
 * try, for there is no way to go on with a PUT.
 */
#pragma once

#include "transfer/outcome.h"

enum { UPLOAD_SECONDS = 2 * 3600 }; /* for all tries together */

struct upload_request {
    const char *url;
    const char *path;         /* of a plain file */
    const char *content_type; /* empty: none is declared */
};

/* Uploads; blocks until it is done, given up or stopped by a signal. */
transfer_outcome upload_file(const upload_request &request);

/* Null when this may stand in a Content-Type header, or what is wrong with it. */
const char *content_type_complaint(const char *content_type);
