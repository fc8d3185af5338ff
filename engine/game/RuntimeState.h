// Inside game.so: what the runtime records for its hosts, reset between games.
#pragma once

#include "HostOnly.h"

namespace game::runtime {

void ResetConfigRecord();
void ResetRendererRecords();

}  // namespace game::runtime
