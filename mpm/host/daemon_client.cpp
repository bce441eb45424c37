#include "host_trust.h"

namespace qvhost {}
