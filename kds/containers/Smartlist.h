// The positional sequence containers of the store.
#pragma once

#include "kds/containers/Deque.h"
#include "kds/containers/Listenumerator.h"
#include "kds/containers/Unrolledskiplist.h"
