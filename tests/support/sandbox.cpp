#include "support/sandbox.h"
