/* Reporting the Status of a failed vekr call. */
#ifndef VEKR_RENDER_CALL_STATUS_H
#define VEKR_RENDER_CALL_STATUS_H

#include "vekr.h"

/* Reports a failed call on stderr, by its name and status; warnings (positive codes) leave
 * valid outputs and pass. Returns 0 for success or a warning, -1 for an error. */
int checkStatus(Status status, const char* call);

#endif /* VEKR_RENDER_CALL_STATUS_H */
