// The event library, as the rest of the library sees it: the public interface
// (vsk/evlib.h) over one libevent event_base per context. See evlib.cc.
#pragma once

#include "vsk/evlib.h"
