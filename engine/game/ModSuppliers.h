// Inside game.so: the interface supplier a host gave the mod of a module.
#pragma once

#include "HostOnly.h"

#include <string>

#include "game/Host.h"

namespace game::runtime {

// The supplier of the mod whose module text is `name`, or an empty one.
orvex::engine::InterfaceSupplier SupplierOf(const std::string& name);

}  // namespace game::runtime
