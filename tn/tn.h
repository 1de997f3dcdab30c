// The platform library: bus messages, handlers, the event loop, the store.
#pragma once
#include "tn/allocator.h"
#include "tn/handler.h"
#include "tn/looper.h"
#include "tn/message.h"
#include "tn/runner.h"
#include "tn/store.h"
#include "tn/time.h"
