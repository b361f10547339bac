#include "support/process.h"
