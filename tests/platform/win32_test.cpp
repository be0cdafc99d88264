#include "support/world.h"
