// What the driver of the fault programme finds ends a fuzz target.
#include "faults/driver.h"
#include "fuzz.h"

void lumbra::test::Found(const std::string& What) {
  fuzz::Require(false, What);
}
