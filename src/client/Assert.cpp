#include "client/Assert.h"

#include <cstdlib>
#include <iostream>

namespace client::detail {

void AssertionFailed(const char* condition, int line) {
  std::cerr << "ASSERTION FAILED: (" << condition << ") in "
            << "src/client/Client.cpp"
            << ":" << line << std::endl;
  std::abort();
}

}  // namespace client::detail
