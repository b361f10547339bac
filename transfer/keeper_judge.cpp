// Decides what becomes of one cached file.
// Asks queue and store; a file goes only by way of cache_file.cpp.
#include "transfer/keeper_judge.h"

#include <algorithm>

#include <spoolcap/zarn_str.h>
#include "platform/base/diagnostics.h"
#include "transfer/receipt.h"
#include "transfer/store_proof.h"

namespace {

// Whether an upload waits or any job works on the key; nothing when not known.
// All locations are asked: the owner's may have changed since the file was queued.
std::optional<bool> is_busy(const keeper_parts &parts, const transfer_config &config,
                            const std::string &key) {
  for (const transfer_location &location : config.locations) {
    const auto queued = parts.queue.is_queued(location.name + "@" + config.node, key);
    if (!queued || *queued) return queued;
    const auto claimed = parts.queue.is_claimed(location.name, key);
    if (!claimed || *claimed) return claimed;
  }
  return false;
}

// The last deletion of the file, or of all of its owner, at any location: the owner's may have been
// another one. 0 for none, nothing when not known.
std::optional<double> deleted_at(const keeper_parts &parts, const transfer_config &config,
                                 const std::string &key) {
  double last = 0;
  for (const transfer_location &location : config.locations) {
    const auto deleted =
        parts.queue.deleted_at({.location = location.name, .node = config.node, .key = key});
    if (!deleted) return std::nullopt;
    last = std::max(last, *deleted);
  }
  return last;
}

judgement remove(const keeper_parts &parts, cache_file &file) {
  if (file.remove() != removal::removed) return judgement::left;
  ++parts.state.counters.evicted;
  parts.state.counters.evicted_bytes += static_cast<std::uint64_t>(file.status().st_size);
  return judgement::removed;
}

// The store has no such object, and no upload of it waits or runs. A fetched file is not brought
// back. Neither is one that was unused for longer than deletions are known: it may have been
// deleted.
judgement judge_absent(const keeper_parts &parts, const keeper_settings &settings, cache_file &file,
                       const std::string &key, const std::optional<receipt> &known) {
  const transfer_config &config = settings.config;
  const double made = file.made_at();
  const auto deleted = deleted_at(parts, config, key);
  if (!deleted) return judgement::untold;
  // Deleted on another node, perhaps: the file here is what is left of it.
  if (*deleted > made + clock_error) return remove(parts, file);
  if (known && known->is_fetched) {
    return *deleted > 0 ? remove(parts, file) : judgement::lost;
  }
  if (known && qx_get_tstamp() - file.last_use() > settings.deletions_kept) return judgement::lost;
  // Whether it was committed or fetched since, or made before, nothing can tell.
  const bool has_origin = can_have_receipt(file.fd()) && file.knows_birth();
  if (*deleted > 0 && !has_origin) return judgement::left;
  const upload_member member{.location = config.location_of(first_id_of(key).value_or(0)),
                             .node = config.node,
                             .key = key};
  switch (parts.queue.queue_again(member, made)) {
    case queue_state::unchanged:
      ++parts.state.counters.queued_again;
      return judgement::queued_again;
    case queue_state::deleted:
      return remove(parts, file);
    default:
      return judgement::untold;
  }
}

// Whether the object is older than the file. What this node stored is older than what it has
// without a receipt. With one, an earlier upload of an unclear end took effect after the file was
// stored.
bool is_brought_anew(const transfer_config &config, const store_answer &answer,
                     const cache_file &file, const std::optional<receipt> &known) {
  const bool is_own = answer.node == config.node;
  const bool is_older = answer.queued != 0 && answer.queued < file.made_at() - clock_error;
  return known ? is_own && is_older : is_own || is_older;
}

}  // namespace

judgement judge_deletion(const keeper_parts &parts, const keeper_settings &settings,
                         cache_file &file, const std::string &key) {
  const transfer_config &config = settings.config;
  // Not a name that hosts make: not ours to remove.
  if (!first_id_of(key)) return judgement::left;
  const auto deleted = deleted_at(parts, config, key);
  if (!deleted) return judgement::untold;
  if (*deleted <= file.made_at() + clock_error) return judgement::left;
  const auto busy = is_busy(parts, config, key);
  if (!busy) return judgement::untold;
  return *busy ? judgement::left : remove(parts, file);
}

judgement judge_file(const keeper_parts &parts, const keeper_settings &settings, cache_file &file,
                     const std::string &key, wanted what, bool young) {
  const transfer_config &config = settings.config;
  if (!first_id_of(key)) return judgement::left;
  const auto busy = is_busy(parts, config, key);
  if (!busy) return judgement::untold;
  if (*busy) return judgement::left;
  const auto known = read_receipt(file.fd());
  const store_answer answer = ask_store(parts.locations, config, key, file, known, parts.stop);
  switch (answer.result) {
    case proof::stored:
      // From now on the store is not asked about this file any more.
      if (!known) write_receipt(file.fd(), answer.found);
      return what == wanted::removal ? remove(parts, file) : judgement::kept;
    // A young file may be on its way into the queue: its host commits first and queues then.
    case proof::absent:
      return young ? judgement::left : judge_absent(parts, settings, file, key, known);
    case proof::different:
      if (young) return judgement::left;
      return is_brought_anew(config, answer, file, known)
                 ? judge_absent(parts, settings, file, key, std::nullopt)
                 : judgement::different;
    case proof::unknown:
      return judgement::untold;
  }
  return judgement::untold;
}
