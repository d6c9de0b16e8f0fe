#include "UnixSocket.h"
