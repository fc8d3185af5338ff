// An entity comes to life through its module's interface: linked, synced, initialised, ready.
#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <stdexcept>
#include <string>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "StderrCapture.h"
#include "filesystem/StreamValues.h"
#include "game/Host.h"
#include "game/entity/ClientSideEntity.h"
#include "game/graphics/Renderer.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::graphics::RenderableInstance;
using Interface = ClientSideEntity::Interface;
constexpr Id kId{0x1111, 0x2222}, kParent{0x3333, 0x4444};

class EntityInterface : public ::testing::Test {
 protected:
  void TearDown() override {
    orvex::engine::ResetEntities(), orvex::engine::UnloadAllMods(), orvex::engine::ResetGame();
  }
  static void LoadMod(const std::string& name, orvex::engine::InterfaceSupplier supply) {
    orvex::engine::LoadMod(std::make_shared<GAME_Mod>(name), std::move(supply));
  }
  static ClientSideEntity::Ptr Create(Id id, const std::string& module, uint32_t payload = 0) {
    orvex::filesystem::Stream data;
    WriteValue(data, payload);
    return Interface::Create(id, module, "ship", kParent, {1, 2, 3}, {0.5, 0.5, 0.5, 0.5},
                             orvex::filesystem::ReadOnlyStream(orvex::filesystem::BytesOf(data)));
  }
};

// Writes down what its entity looked like at each step.
struct Recorder : Interface {
  explicit Recorder(std::vector<std::string>& log) : log(log) {}
  std::string State() {
    const ClientSideEntity::Ptr owner = entity.lock();
    const bool linked = owner == ClientSideEntity::Get<ClientSideEntity>(id) &&
                        self.lock().get() == this && sharedMember == owner->sharedMember &&
                        Id(owner->parentId) == kParent && glm::dvec3(owner->position).z == 3;
    return std::string(linked ? " placed" : " unlinked") + (ready || owner->ready ? " ready" : "") +
           (owner->renderables[0]->linked ? " renderables linked" : "") + " aim " +
           std::to_string(aimId);
  }
  void Sync(orvex::filesystem::ReadOnlyStream& data) override {
    const uint32_t value = ReadValue<uint32_t>(data);
    log.push_back("Sync" + State() + " data " + std::to_string(value));
    if (value == 0xBAD) throw std::runtime_error("bad entity data");
  }
  void Init() override {
    Interface::Init();
    log.push_back("Init" + State());
  }
  std::vector<std::string>& log;
};

TEST_F(EntityInterface, ComesToLifeLinkedPlacedSyncedInitialisedThenReady) {
  std::vector<std::string> log;
  LoadMod("TEST_probe", [&](ClientSideEntity& entity) {
    entity.interface = std::make_shared<Recorder>(log);
    entity.sharedMember = std::make_shared<int>(42);
    entity.renderables = {std::make_shared<RenderableInstance>(),
                          std::make_shared<RenderableInstance>()};
  });
  ClientSideEntity::Ptr entity = Create(kId, "test_Probe", 0xABCD);
  EXPECT_EQ(log, (std::vector<std::string>{"Sync placed aim 0 data 43981", "Init placed aim 1"}));
  EXPECT_TRUE(entity->ready);
  EXPECT_TRUE(entity->interface->ready);
  for (const auto& r : entity->renderables) {
    EXPECT_TRUE(r->linked);
    EXPECT_EQ(orvex::engine::AimIdOf(*r).aimId, 1u);
  }
  ASSERT_EQ(orvex::engine::AimReferenceCount(), 1u);
  const auto aim = orvex::engine::AimReferences().at(0);
  EXPECT_EQ(aim.name, "TEST_probe") << "named by the module's canonical text";
  const auto* weak = std::any_cast<std::weak_ptr<Interface>>(&aim.reference);
  ASSERT_TRUE(weak);
  EXPECT_EQ(weak->lock(), entity->interface);
  EXPECT_THROW(Create(kId, "TEST_probe"), std::runtime_error) << "the id is taken";
  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(kId), entity);
  EXPECT_EQ(log.size(), 2u);
  entity.reset(), ClientSideEntity::Destroy(kId);
  EXPECT_TRUE(weak->expired()) << "the renderer kept the interface alive";

  EXPECT_THROW(Create(kId, "TEST_probe", 0xBAD), std::runtime_error);  // a failing Sync
  ASSERT_TRUE(entity = ClientSideEntity::Get<ClientSideEntity>(kId)) << "registered";
  EXPECT_FALSE(entity->ready);
  EXPECT_FALSE(entity->interface->ready);
  EXPECT_EQ(log.back(), "Sync placed aim 0 data 2989") << "and no Init";
}

// An interface with its own Init may leave renderable slots empty; linking skips them.
struct OwnInit : Interface {
  void Init() override {}
};

TEST_F(EntityInterface, NoInterfaceRemovesTheEntityTheDefaultReadsNothingAnOwnInitMaySkip) {
  std::weak_ptr<RenderableInstance> renderable;
  LoadMod("TEST_empty", [&](ClientSideEntity& entity) {
    renderable = entity.renderables.emplace_back(std::make_shared<RenderableInstance>());
  });
  LoadMod("CORE_ship", [](ClientSideEntity& e) { e.interface = std::make_shared<Interface>(); });
  LoadMod("TEST_sparse", [](ClientSideEntity& entity) {
    entity.interface = std::make_shared<OwnInit>();
    entity.renderables = {std::make_shared<RenderableInstance>(), nullptr};
  });
  testlib::StderrCapture err;
  EXPECT_FALSE(Create(kId, "TEST_empty"));
  EXPECT_FALSE(Create(Id{5, 6}, "TEST_notloaded"));
  EXPECT_FALSE(ClientSideEntity::Exists(kId));
  EXPECT_FALSE(ClientSideEntity::Exists(Id{5, 6}));
  EXPECT_TRUE(renderable.expired()) << "destroyed";
  EXPECT_EQ(err.Text(), "") << "silently";

  orvex::filesystem::ReadOnlyStream data(std::vector<uint8_t>{7, 0, 0, 0});
  const auto ship = Interface::Create(kId, "core_Ship", "", {}, {}, {}, std::move(data));
  EXPECT_EQ(orvex::filesystem::PositionOf(data), 0u) << "the default Sync reads nothing";
  EXPECT_TRUE(ship->ready);
  EXPECT_TRUE(ship->interface->ready);
  EXPECT_EQ(ship->interface->aimId, 1u);
  const auto sparse = Create(Id{8, 8}, "TEST_sparse");
  EXPECT_TRUE(sparse->ready);
  EXPECT_TRUE(sparse->renderables[0]->linked);
  EXPECT_EQ(orvex::engine::AimIdOf(*sparse->renderables[0]).calls, 0);
  // A long game: the renderer lets go of the references of interfaces that are gone.
  Game::renderer->AddAimReference("not an interface", 1);  // kept
  for (uint64_t i = 100; i < 1100; ++i)
    Create({i, i}, "CORE_ship"), ClientSideEntity::Destroy({i, i});
  EXPECT_LE(orvex::engine::AimReferenceCount(), 64u);
  const auto kept = orvex::engine::AimReferences();
  EXPECT_EQ(kept.at(0).aimId, 1u) << "live ones stay";
  EXPECT_EQ(kept.at(0).name, ship->moduleId.String()) << "with their names";
  const auto other = std::find_if(kept.begin(), kept.end(),
                                  [](const auto& r) { return r.name == "not an interface"; });
  ASSERT_NE(other, kept.end());
  EXPECT_EQ(std::any_cast<int>(other->reference), 1);
}

}  // namespace
