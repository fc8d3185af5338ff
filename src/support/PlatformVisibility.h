// Read first by every source of the module (a forced include, src/CMakeLists.txt). The module
// is compiled with hidden visibility, so that its inside stays out of client.so's symbol
// table; the platform's declarations keep the default visibility. They are the engine's and
// the game's, which the module imports, and the parts of them that the module defines for
// the game (the entity registry and interface, the identifiers' text forms, the lock, the
// stopwatch, the profiler), which it exports. All of them, not only the defined parts: a
// platform type's identity (its typeinfo, which dynamic_cast and catch compare) must be one
// on both sides. A class takes its visibility from its first declaration, so declaring them
// here, before any source includes them, holds it everywhere. src/client.map picks the
// exports out of what stays visible.
#pragma once

#pragma GCC visibility push(default)
#include "GAME_Mod.h"
#include "Game.h"
#include "Timer.h"
#include "game/Config.h"
#include "game/Networking.h"
#include "game/UniqueId.h"
#include "game/entity/ClientSideEntity.h"
#include "game/entity/Id.h"
#include "game/entity/Unlocked.h"
#include "game/graphics/Renderer.h"
#include "orvex/SharedMutex.h"
#include "orvex/cpu/Profiler.h"
#include "orvex/filesystem/Stream.h"
#include "orvex/modular/ModuleID.h"
#include "orvex/net/Socket.h"
#pragma GCC visibility pop
