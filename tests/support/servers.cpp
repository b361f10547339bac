#include "support/servers.h"
