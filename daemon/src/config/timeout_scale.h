#pragma once
// The `scale` attribute of a `timeout` element, as the daemon configuration
// and provider files both carry it.
//
// Thread safety: as the XML readers, one thread at a time.

#include <libxml/tree.h>

#include "daemon/src/config/config.h"

// Sets `scale` from the first `scale` attribute of `timeout`. A second one is
// a warning ("Multiple scale attributes found for timeout configuration. Using
// the first scale value."); a text not in timeout_scale_names keeps `scale` and
// logs `unknown_prefix`, the text and `unknown_suffix` as a warning.
void read_timeout_scale(const xmlNode* timeout, const char* unknown_prefix,
                        const char* unknown_suffix, ::timeout_scale& scale);
