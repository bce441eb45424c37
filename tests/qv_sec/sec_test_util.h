// The library's tests read the thread's error record by these short names.
#pragma once

#include "current_error.h"

using qvtest::last_error_text;
using qvtest::last_message;
