/* The public header, compiled as C99 with -pedantic. */
#include "zelm.h"

const zelLibVersion* zelm_header_c_probe(void) { return zelmGetLibVersion(); }
