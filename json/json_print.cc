#include "vkt_json.h"
