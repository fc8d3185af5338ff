#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "entity/EntityTestSupport.h"
#include "support_helpers/StderrCapture.h"

namespace entitytest {
namespace {

using testing_support::StderrCapture;

// Bytes "ENTY", then 01 02 ... 0C: the text form is the tag followed by 24 hex digits.
constexpr Id kTagged{0x0403020159544E45ull, 0x0C0B0A0908070605ull};
const std::string kTaggedText = "ENTY0102030405060708090A0B0C";

// Interfaces of the "TEST_probe" module count how many of them died; an interface dies
// with its entity, so the count tells when entities are destroyed.
std::atomic<int> interfacesDestroyed{0};

struct CountingInterface : ClientSideEntity::Interface {
  ~CountingInterface() override { ++interfacesDestroyed; }
};

class EntityRegistry : public EntityTest {
 protected:
  void SetUp() override {
    EntityTest::SetUp();
    interfacesDestroyed = 0;
    LoadMod("TEST_probe", [](ClientSideEntity& entity) {
      entity.interface = std::make_shared<CountingInterface>();
    });
  }

  static ClientSideEntity::Ptr Create(Id id, const std::string& text = "entity") {
    return ClientSideEntity::Create<ClientSideEntity>(id, "TEST_probe", text);
  }

  static std::string CreateError(Id id) {
    try {
      Create(id, "second");
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    ADD_FAILURE() << "a second entity with the same id was accepted";
    return {};
  }
};

TEST_F(EntityRegistry, DuplicateIdIsRejectedAndTheRegisteredEntityIsUntouched) {
  ClientSideEntity::Ptr first = Create(kTagged, "first");
  first->position = glm::dvec3(1.0, 2.0, 3.0);

  StderrCapture err;
  EXPECT_EQ(CreateError(kTagged),
            "UNIQUE_OBJECT ClientSideEntity with id " + kTaggedText + " already exists");
  EXPECT_EQ(err.Text(), "");

  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(kTagged), first);
  EXPECT_EQ(first->text, "first");
  EXPECT_EQ(glm::dvec3(first->position), glm::dvec3(1.0, 2.0, 3.0));
  EXPECT_EQ(first.use_count(), 2) << "the caller's and the registry's reference";
  EXPECT_EQ(interfacesDestroyed, 1) << "the rejected entity is destroyed";
  EXPECT_EQ(ClientSideEntity::_sharedObjects.size(), 1u);
}

TEST_F(EntityRegistry, DuplicateOfANullIdNamesNoIdBetweenTheTwoTexts) {
  const Id halfZero{0, 5};
  Create(halfZero);
  EXPECT_EQ(CreateError(halfZero), "UNIQUE_OBJECT ClientSideEntity with id  already exists");
  EXPECT_TRUE(ClientSideEntity::Exists(halfZero));
}

TEST_F(EntityRegistry, DestroyWhileHeldWarnsOnceAndTheObjectLivesOn) {
  ClientSideEntity::Ptr held = Create(kTagged, "held");
  {
    StderrCapture err;
    ClientSideEntity::Destroy(kTagged);
    EXPECT_EQ(err.Text(), "WARNING: UNIQUE_OBJECT ClientSideEntity with id " + kTaggedText +
                              " being Destroyed while still in use\n");
  }
  EXPECT_FALSE(ClientSideEntity::Exists(kTagged));
  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(kTagged), nullptr);
  EXPECT_EQ(held->text, "held");
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(interfacesDestroyed, 0);

  held.reset();
  EXPECT_EQ(interfacesDestroyed, 1);

  // The id is free again.
  EXPECT_NE(Create(kTagged, "again"), nullptr);
  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(kTagged)->text, "again");
}

// The destructor of a last-held entity runs inside Destroy's exclusive section: a reader
// started from inside the destructor can only get in once the destructor has finished.
std::atomic<bool> destructorFinished{false};
std::atomic<bool> readerSawFinishedDestructor{false};
std::thread reader;

struct ProbingInterface : ClientSideEntity::Interface {
  ~ProbingInterface() override {
    reader = std::thread([] {
      ClientSideEntity::Exists(Id{1, 1});
      readerSawFinishedDestructor = destructorFinished.load();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    destructorFinished = true;
  }
};

TEST_F(EntityRegistry, DestroyOfTheLastReferenceDestroysInsideTheLockAndPrintsNothing) {
  LoadMod("TEST_locked", [](ClientSideEntity& entity) {
    entity.interface = std::make_shared<ProbingInterface>();
  });
  ClientSideEntity::Create<ClientSideEntity>(kTagged, "TEST_locked", "");

  StderrCapture err;
  ClientSideEntity::Destroy(kTagged);
  EXPECT_TRUE(destructorFinished) << "destroyed before Destroy returned";
  if (reader.joinable()) reader.join();
  EXPECT_TRUE(readerSawFinishedDestructor) << "destroyed outside the exclusive section";
  EXPECT_EQ(err.Text(), "");
  EXPECT_FALSE(ClientSideEntity::Exists(kTagged));
}

TEST_F(EntityRegistry, DestroyOfAnUnknownIdChangesNothing) {
  Create(kTagged);
  StderrCapture err;
  ClientSideEntity::Destroy(Id{kTagged.word0 + 1, kTagged.word1});
  EXPECT_EQ(err.Text(), "");
  EXPECT_TRUE(ClientSideEntity::Exists(kTagged));
  EXPECT_EQ(interfacesDestroyed, 0);
}

TEST_F(EntityRegistry, IdsSharingWordOneAreDistinctEntries) {
  const Id a{1, 7};
  const Id b{2, 7};
  Create(a, "a");
  Create(b, "b");
  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(a)->text, "a");
  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(b)->text, "b");
  EXPECT_FALSE(ClientSideEntity::Exists(Id{3, 7}));

  ClientSideEntity::Destroy(a);
  EXPECT_FALSE(ClientSideEntity::Exists(a));
  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(b)->text, "b");
}

// Readers look entities up (and walk to their parents) while a writer creates and destroys
// them. Checked by state; run it under ThreadSanitizer to check the locking itself.
TEST_F(EntityRegistry, ConcurrentReadersSeeConsistentEntriesWhileAWriterChangesThem) {
  constexpr uint64_t kIds = 64;
  constexpr int kReaders = 3;
  constexpr int kLookupsEach = 20000;
  const auto idOf = [](uint64_t i) { return Id{i + 1, i % 8 + 1}; };

  StderrCapture err;  // destroying an entity that a reader holds warns; expected here
  std::atomic<int> readersLeft{kReaders};
  std::atomic<int> wrongEntity{0};

  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&, r] {
      for (int n = 0; n < kLookupsEach; ++n) {
        const Id id = idOf(static_cast<uint64_t>(n + r) % kIds);
        if (ClientSideEntity::Ptr entity = ClientSideEntity::Get<ClientSideEntity>(id)) {
          if (!(entity->id == id)) ++wrongEntity;
          entity->GetAbsoluteTransformInEnvironment();
        }
        ClientSideEntity::Exists(id);
      }
      --readersLeft;
    });
  }

  // Churn for as long as the readers read; the final round leaves the odd indices.
  for (bool last = false; !last;) {
    last = readersLeft == 0;
    for (uint64_t i = 0; i < kIds; ++i) {
      ClientSideEntity::Ptr entity = Create(idOf(i));
      if (i > 0) entity->parentId = idOf(i - 1);
    }
    for (uint64_t i = 0; i < kIds; ++i) {
      if (!last || i % 2 == 0) ClientSideEntity::Destroy(idOf(i));
    }
  }
  for (std::thread& thread : readers) thread.join();

  EXPECT_EQ(wrongEntity, 0);
  for (uint64_t i = 0; i < kIds; ++i) EXPECT_EQ(ClientSideEntity::Exists(idOf(i)), i % 2 == 1);
}

}  // namespace
}  // namespace entitytest
