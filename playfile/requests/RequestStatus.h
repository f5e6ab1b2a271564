// Request status and result type: host media types that the read requests use.
#pragma once

#include "host/media/RequestStatus.h"
