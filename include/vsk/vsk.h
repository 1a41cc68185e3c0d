/* libvsk: the subscriber session store of the access router.
 *
 * The umbrella header: includes every public header of the library. */
#ifndef VSK_VSK_H
#define VSK_VSK_H

#include "vsk/export.h"
#include "vsk/status.h"
#include "vsk/product_info.h"
#include "vsk/store.h"
#include "vsk/dyn_db.h"
#include "vsk/evlib.h"
#include "vsk/orvd.h"
#include "vsk/session.h"
#include "vsk/shared.h"
#include "vsk/avl.h"
#include "vsk/intf.h"
#include "vsk/patricia.h"
#include "vsk/attr.h"
#include "vsk/tables.h"
#include "vsk/snapshot.h"
#include "vsk/session_cache.h"
#include "vsk/libstats.h"
#include "vsk/attr_read.h"
#include "vsk/dynamic.h"
#include "vsk/recover.h"
#include "vsk/provdb.h"
#include "vsk/pfltd.h"
#include "vsk/ack.h"
#include "vsk/auth.h"
#include "vsk/app_data.h"
#include "vsk/uid.h"

#endif /* VSK_VSK_H */
