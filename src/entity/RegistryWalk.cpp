#include "entity/RegistryWalk.h"

#include <algorithm>

namespace game::entity {

namespace {
using Map = decltype(ClientSideEntity::_sharedObjects);
}  // namespace

void RegistryWalk::ForEach(bool (*wanted)(const ClientSideEntity&), const Visit& visit) {
  const Map& map = ClientSideEntity::_sharedObjects;
  const size_t stride = std::max<size_t>(1, map.size() / kStretches);

  // Where the stretches start: the list's head, then each mark still registered.
  std::vector<Map::const_iterator> starts{map.begin()};
  for (const Id& mark : marks_) {
    const auto it = map.find(mark);
    if (it != map.end() && it != starts.back()) starts.push_back(it);
  }
  const size_t count = starts.size();
  found_.resize(count);
  stretchMarks_.resize(count);
  for (size_t j = 0; j < count; ++j) found_[j].clear(), stretchMarks_[j].clear();
  std::vector<Id> marks;

  // Side by side: each stretch steps once a round until it meets the next one's start.
  std::vector<Map::const_iterator> at = starts;
  std::vector<size_t> steps(count, 0);
  std::vector<bool> done(count, false);
  size_t active = count, total = 0;
  bool ordered = true;
  while (active > 0 && ordered) {
    for (size_t j = 0; j < count; ++j) {
      if (done[j]) continue;
      const Map::const_iterator stop = j + 1 < count ? starts[j + 1] : map.end();
      if (at[j] == stop) {
        done[j] = true;
        --active;
        continue;
      }
      if (at[j] == map.end() || ++total > map.size()) {
        ordered = false;  // the stretch ran past where its successor starts
        break;
      }
      if (steps[j] % stride == 0 && (j > 0 || steps[j] > 0)) {
        stretchMarks_[j].push_back(at[j]->first);
      }
      if (at[j]->second && wanted(*at[j]->second)) found_[j].push_back(&at[j]->second);
      ++at[j];
      ++steps[j];
    }
  }

  if (ordered) {
    for (const auto& stretch : stretchMarks_)
      marks.insert(marks.end(), stretch.begin(), stretch.end());
    for (const auto& stretch : found_) {
      for (const ClientSideEntity::Ptr* entity : stretch) visit(*entity);
    }
  } else {
    size_t s = 0;
    for (auto it = map.begin(); it != map.end(); ++it, ++s) {
      if (s > 0 && s % stride == 0) marks.push_back(it->first);
      if (it->second && wanted(*it->second)) visit(it->second);
    }
  }
  // Short stretches keep their marks; thinning keeps the count near kStretches.
  while (marks.size() > 2 * kStretches) {
    size_t kept = 0;
    for (size_t i = 1; i < marks.size(); i += 2) marks[kept++] = marks[i];
    marks.resize(kept);
  }
  marks_.swap(marks);
}

}  // namespace game::entity
