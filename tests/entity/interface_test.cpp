#include <any>
#include <stdexcept>
#include <string>
#include <vector>

#include "entity/EntityTestSupport.h"
#include "game/graphics/Renderer.h"
#include "support_helpers/StderrCapture.h"

namespace entitytest {
namespace {

using game::entity::Orientation;
using game::graphics::RenderableInstance;
using testing_support::StderrCapture;

constexpr Id kId{0x1111, 0x2222};
constexpr Id kParent{0x3333, 0x4444};
const glm::dvec3 kPosition(1.0, 2.0, 3.0);
const Orientation kOrientation{0.5, 0.5, 0.5, 0.5};

orvex::filesystem::ReadOnlyStream Payload(uint32_t value) {
  orvex::filesystem::Stream stream;
  stream.WriteValue(value);
  return orvex::filesystem::ReadOnlyStream(stream.GetBuffer(), stream.GetBufferSize());
}

bool AnyLinked(const ClientSideEntity& entity) {
  for (const auto& renderable : entity.renderables) {
    if (renderable && renderable->linked) return true;
  }
  return false;
}

// What a recording interface saw at each of its steps.
struct Seen {
  std::vector<std::string> calls;
  bool linkedAtSync = false;
  bool placedAtSync = false;
  bool readyAtSync = true;
  bool renderablesLinkedAtSync = true;
  uint32_t payload = 0;
  uint32_t aimIdAfterInit = 0;
  bool renderablesLinkedAtInit = true;
  bool readyAtInit = true;
};

// Records the order of its calls and the state of itself and its entity at each one.
struct RecordingInterface : ClientSideEntity::Interface {
  explicit RecordingInterface(Seen& seen, bool throwInSync = false)
      : seen(seen), throwInSync(throwInSync) {}

  void Sync(orvex::filesystem::ReadOnlyStream& data) override {
    seen.calls.push_back("Sync");
    const ClientSideEntity::Ptr owner = entity.lock();
    seen.linkedAtSync = owner && owner == ClientSideEntity::Get<ClientSideEntity>(kId) &&
                        self.lock().get() == this && id == kId && sharedMember &&
                        sharedMember == owner->sharedMember;
    seen.placedAtSync = owner && Id(owner->parentId) == kParent &&
                        glm::dvec3(owner->position) == kPosition &&
                        Orientation(owner->orientation) == kOrientation;
    seen.readyAtSync = ready || (owner && owner->ready);
    seen.renderablesLinkedAtSync = owner && AnyLinked(*owner);
    seen.payload = data.ReadValue<uint32_t>();
    if (throwInSync) throw std::runtime_error("bad entity data");
  }

  void Init() override {
    seen.calls.push_back("Init");
    Interface::Init();
    const ClientSideEntity::Ptr owner = entity.lock();
    seen.aimIdAfterInit = aimId;
    seen.renderablesLinkedAtInit = AnyLinked(*owner);
    seen.readyAtInit = ready || owner->ready;
  }

  Seen& seen;
  bool throwInSync;
};

class EntityInterface : public EntityTest {
 protected:
  static ClientSideEntity::Ptr Create(Id id, const std::string& module,
                                      orvex::filesystem::ReadOnlyStream&& data = {}) {
    return ClientSideEntity::Interface::Create(id, module, "ship", kParent, kPosition, kOrientation,
                                               std::move(data));
  }

  // A module whose entities get a RecordingInterface, `renderables` fresh instances and a
  // shared member.
  void LoadRecordingMod(const std::string& name, int renderables, bool throwInSync = false) {
    LoadMod(name, [this, renderables, throwInSync](ClientSideEntity& entity) {
      entity.interface = std::make_shared<RecordingInterface>(seen, throwInSync);
      entity.sharedMember = std::make_shared<int>(42);
      for (int i = 0; i < renderables; ++i) {
        entity.renderables.push_back(std::make_shared<RenderableInstance>());
      }
    });
  }

  Seen seen;
};

TEST_F(EntityInterface, ComesToLifeLinkedThenSyncedThenInitialisedThenReady) {
  LoadRecordingMod("TEST_probe", 2);
  const ClientSideEntity::Ptr entity = Create(kId, "test_Probe", Payload(0xABCD1234));

  ASSERT_NE(entity, nullptr);
  EXPECT_EQ(seen.calls, (std::vector<std::string>{"Sync", "Init"}));
  EXPECT_TRUE(seen.linkedAtSync) << "entity, self, id and shared member are set before Sync";
  EXPECT_TRUE(seen.placedAtSync) << "parent, position and orientation are stored before Sync";
  EXPECT_EQ(seen.payload, 0xABCD1234u) << "Sync reads the creation data";
  EXPECT_FALSE(seen.renderablesLinkedAtSync);
  EXPECT_FALSE(seen.readyAtSync);
  EXPECT_EQ(seen.aimIdAfterInit, 1u);
  EXPECT_FALSE(seen.renderablesLinkedAtInit) << "renderables are linked after Init";
  EXPECT_FALSE(seen.readyAtInit);

  EXPECT_TRUE(entity->ready);
  EXPECT_TRUE(entity->interface->ready);
  EXPECT_EQ(entity->interface->aimId, 1u);
  EXPECT_EQ(entity, ClientSideEntity::Get<ClientSideEntity>(kId));
  for (const auto& renderable : entity->renderables) {
    EXPECT_TRUE(renderable->linked);
    EXPECT_EQ(renderable->aimId, 1u);
    EXPECT_EQ(renderable->aimIdCalls, 1);
  }
  // The aim reference is named by the module's canonical text.
  ASSERT_EQ(Game::renderer->AimReferenceCount(), 1u);
  EXPECT_EQ(Game::renderer->AimReferences()[0].name, "TEST_probe");
}

TEST_F(EntityInterface, EntityWithoutInterfaceIsRemovedSilently) {
  std::weak_ptr<RenderableInstance> renderable;
  LoadMod("TEST_empty", [&renderable](ClientSideEntity& entity) {
    auto instance = std::make_shared<RenderableInstance>();
    renderable = instance;
    entity.renderables.push_back(instance);
  });

  StderrCapture err;
  EXPECT_EQ(Create(kId, "TEST_empty"), nullptr);
  EXPECT_EQ(Create(Id{5, 6}, "TEST_notloaded"), nullptr);
  EXPECT_EQ(err.Text(), "");
  EXPECT_FALSE(ClientSideEntity::Exists(kId));
  EXPECT_FALSE(ClientSideEntity::Exists(Id{5, 6}));
  EXPECT_TRUE(renderable.expired()) << "the entity was destroyed";
  EXPECT_EQ(Game::renderer->AimReferenceCount(), 0u);
}

TEST_F(EntityInterface, SecondCreateWithALiveIdThrowsAndLeavesTheFirstAlone) {
  LoadRecordingMod("TEST_probe", 1);
  const ClientSideEntity::Ptr first = Create(kId, "TEST_probe");
  const auto firstInterface = first->interface;

  EXPECT_THROW(ClientSideEntity::Interface::Create(kId, "TEST_probe", "other", Id{7, 8},
                                                   glm::dvec3(9.0), Orientation{}, {}),
               std::runtime_error);

  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(kId), first);
  EXPECT_EQ(first->interface, firstInterface);
  EXPECT_EQ(first->interface->aimId, 1u);
  EXPECT_EQ(glm::dvec3(first->position), kPosition);
  EXPECT_EQ(Id(first->parentId), kParent);
  EXPECT_EQ(seen.calls, (std::vector<std::string>{"Sync", "Init"})) << "nothing ran twice";
  EXPECT_EQ(Game::renderer->AimReferenceCount(), 1u);
}

TEST_F(EntityInterface, DefaultInterfaceGetsAnAimIdWithoutRenderablesAndReadsNothing) {
  LoadMod("CORE_ship", [](ClientSideEntity& entity) {
    entity.interface = std::make_shared<ClientSideEntity::Interface>();
  });
  orvex::filesystem::ReadOnlyStream data = Payload(7);

  const ClientSideEntity::Ptr first = Create(kId, "core_Ship", std::move(data));
  const ClientSideEntity::Ptr second = Create(Id{9, 9}, "CORE_ship");

  ASSERT_NE(first, nullptr);
  EXPECT_EQ(data.GetPosition(), 0u) << "the default Sync reads nothing";
  EXPECT_EQ(first->interface->aimId, 1u);
  EXPECT_EQ(second->interface->aimId, 2u);
  EXPECT_TRUE(first->ready && first->interface->ready);
  EXPECT_EQ(first->interface->id, kId);
  EXPECT_EQ(first->interface->entity.lock(), first);
  EXPECT_EQ(Game::renderer->AimReferences()[0].name, "CORE_ship");
}

TEST_F(EntityInterface, AimReferenceIsAWeakPointerThatKeepsNothingAlive) {
  LoadRecordingMod("TEST_probe", 1);
  ClientSideEntity::Ptr entity = Create(kId, "TEST_probe");

  const std::any reference = Game::renderer->AimReferences().at(0).reference;
  const auto* weak = std::any_cast<std::weak_ptr<ClientSideEntity::Interface>>(&reference);
  ASSERT_NE(weak, nullptr);
  EXPECT_EQ(weak->lock(), entity->interface);

  entity.reset();
  ClientSideEntity::Destroy(kId);
  EXPECT_TRUE(weak->expired()) << "the renderer kept the interface alive";
}

TEST_F(EntityInterface, FailingSyncPropagatesAndLeavesTheEntityRegisteredButNotReady) {
  LoadRecordingMod("TEST_probe", 1, /*throwInSync=*/true);

  EXPECT_THROW(Create(kId, "TEST_probe", Payload(1)), std::runtime_error);

  const ClientSideEntity::Ptr entity = ClientSideEntity::Get<ClientSideEntity>(kId);
  ASSERT_NE(entity, nullptr);
  EXPECT_FALSE(entity->ready);
  EXPECT_FALSE(entity->interface->ready);
  EXPECT_EQ(seen.calls, (std::vector<std::string>{"Sync"}));
  EXPECT_EQ(Game::renderer->AimReferenceCount(), 0u);
}

// An interface with its own Init may leave renderable slots empty; the linking step skips
// them.
struct OwnInitInterface : ClientSideEntity::Interface {
  void Init() override {}
};

TEST_F(EntityInterface, LinkingSkipsEmptyRenderableEntries) {
  LoadMod("TEST_sparse", [](ClientSideEntity& entity) {
    entity.interface = std::make_shared<OwnInitInterface>();
    entity.renderables = {std::make_shared<RenderableInstance>(), nullptr,
                          std::make_shared<RenderableInstance>()};
  });

  const ClientSideEntity::Ptr entity = Create(kId, "TEST_sparse");

  ASSERT_NE(entity, nullptr);
  EXPECT_TRUE(entity->renderables[0]->linked);
  EXPECT_TRUE(entity->renderables[2]->linked);
  EXPECT_EQ(entity->renderables[0]->aimIdCalls, 0);
  EXPECT_TRUE(entity->ready);
}

}  // namespace
}  // namespace entitytest
