// Included first by every header under engine/: what the reference engine offers its hosts
// (tools, tests, benchmarks) beyond the declared platform. The module is built against the
// platform alone, so its build defines ORVEX_MODULE_BUILD and any include of these headers
// from it stops the build.
#pragma once

#if defined(ORVEX_MODULE_BUILD)
#error "client.so is built against platform/ alone: engine/ headers are for hosts"
#endif
