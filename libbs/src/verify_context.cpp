#include "verify_context.h"
