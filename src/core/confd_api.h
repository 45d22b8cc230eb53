// The ConfD C API as the daemon includes it: the library's type checks made always-on assertions.
//
// The value getters of the API (CONFD_GET_UINT32 and friends) check the
// value's type through CONFD_ASSERT; the check's text names the ConfD type,
// e.g. "(v_pp)->type == C_UINT32". Routing it to LEISOBEK_ASSERT keeps those
// checks in release builds. The getters expand CONFD_ASSERT where they are
// used, so the definition below wins whatever was included before.
//
// This is the daemon's only include of the ConfD headers. The SDK's
// confd_dp.h, confd_maapi.h and confd_events.h are not self-contained: they
// rely on confd_lib.h having been included first, so the order below matters.
#ifndef LEISOBEK_CORE_CONFD_API_H
#define LEISOBEK_CORE_CONFD_API_H

#include "always_assert.h"

#ifdef CONFD_ASSERT
#undef CONFD_ASSERT
#endif
#define CONFD_ASSERT(E) LEISOBEK_ASSERT(E)

#include <confd_lib.h>
#include <confd_dp.h>
#include <confd_maapi.h>
#include <confd_events.h>

#endif
