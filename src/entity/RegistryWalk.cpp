#include "entity/RegistryWalk.h"

#include <algorithm>

#include "entity/Prefetch.h"

namespace game::entity {

void RegistryWalk::ForEach(Flag flag, const Visit& visit) {
  const Map& map = ClientSideEntity::_sharedObjects;
  if (!layout::Usable()) {
    // Without the layout there is nothing to fetch ahead: one plain pass.
    for (const auto& [id, entity] : map) {
      if (entity && (*entity).*flag) visit(entity);
    }
    return;
  }
  const size_t stride = std::max<size_t>(1, map.size() / kStretches);

  // Where the stretches start: the list's head, then each mark still registered. The
  // stretches' storage is kept from walk to walk, so a walk allocates nothing once warm.
  size_t count = 0;
  const auto open = [&](Map::const_iterator start) {
    if (count == stretches_.size()) stretches_.emplace_back();
    Stretch& s = stretches_[count++];
    s.at = start;
    s.tested = nullptr;
    // A mark every `stride` steps, from the stretch's first node on (the list's head is
    // found without one).
    s.untilMark = count == 1 ? stride : 0;
    s.done = false;
    s.found.clear();
    s.marks.clear();
  };
  open(map.begin());
  for (const Id& mark : marks_) {
    const auto it = map.find(mark);
    if (it != map.end() && it != stretches_[count - 1].at) open(it);
  }
  // Each stretch ends where the next one starts.
  for (size_t j = 0; j < count; ++j) {
    stretches_[j].stop = j + 1 < count ? stretches_[j + 1].at : map.end();
  }

  // Side by side: each stretch steps once a round until it meets its stop. A step tests the
  // flag fetched in the last round, then moves on, fetching the next node and the flag of
  // the node it leaves.
  const auto flagged = [flag](const ClientSideEntity::Ptr* entity) {
    return entity != nullptr && (**entity).*flag;
  };
  size_t active = count, total = 0;
  bool ordered = true;
  while (active > 0 && ordered) {
    for (size_t j = 0; j < count; ++j) {
      Stretch& s = stretches_[j];
      if (s.done) continue;
      if (flagged(s.tested)) s.found.push_back(s.tested);
      s.tested = nullptr;
      if (s.at == s.stop) {
        s.done = true;
        --active;
        continue;
      }
      if (s.at == map.end() || ++total > map.size()) {
        ordered = false;  // the stretch ran past where its successor starts
        break;
      }
      if (s.untilMark == 0) {
        s.marks.push_back(s.at->first);
        s.untilMark = stride;
      }
      --s.untilMark;
      // The flag of the entity stepped over is fetched now and tested next round.
      if (const ClientSideEntity::Ptr& entity = s.at->second) {
        Prefetch<Intent::kRead>(&((*entity).*flag));
        s.tested = &entity;
      }
      ++s.at;
      if (s.at != s.stop && s.at != map.end()) {
        PrefetchNode(layout::NodeOf(*s.at));
      }
    }
  }

  nextMarks_.clear();
  if (ordered) {
    for (size_t j = 0; j < count; ++j) {
      const Stretch& s = stretches_[j];
      nextMarks_.insert(nextMarks_.end(), s.marks.begin(), s.marks.end());
      for (const ClientSideEntity::Ptr* entity : s.found) visit(*entity);
    }
  } else {
    size_t step = 0;
    for (auto it = map.begin(); it != map.end(); ++it, ++step) {
      if (step > 0 && step % stride == 0) nextMarks_.push_back(it->first);
      if (it->second && (*it->second).*flag) visit(it->second);
    }
  }
  // Short stretches keep their marks; thinning keeps the count near kStretches.
  while (nextMarks_.size() > 2 * kStretches) {
    size_t kept = 0;
    for (size_t i = 1; i < nextMarks_.size(); i += 2) nextMarks_[kept++] = nextMarks_[i];
    nextMarks_.resize(kept);
  }
  marks_.swap(nextMarks_);
}

}  // namespace game::entity
