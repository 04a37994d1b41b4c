#pragma once
// Provider option sets: environment settings for data providers, read from the
// children of the first configuration/provider element.
//
// Each provider element becomes an entry under its upper-cased name; each of
// its optionset elements (by id) becomes one option set, and the other
// children are options common to all of the provider's sets. Without named
// sets the common options form the set "default". Values are put in double
// quotes on the provider's shell command line, so a value holding a double
// quote is refused; "$" and backquotes in a value are still the shell's.
//
// Called once by read_config on the main thread.

#include <libxml/xpath.h>

#include "daemon/src/config/config.h"

void read_provider_options(daemon_config& config, xmlXPathContext* context);
