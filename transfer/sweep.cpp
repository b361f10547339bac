// Ends uploads in parts that were never finished.
// On a thread of the workers, once a day; changes the store only.
#include "transfer/sweep.h"

#include <unistd.h>

#include <spoolcap/zarn_str.h>
#include "platform/base/diagnostics.h"
#include "transfer/multipart.h"
#include "transfer/store_proof.h"

namespace {

// An upload does not show which node began it, and the files of a node may wait for days.
constexpr double forgotten_after = 7 * 86'400.0;  // seconds
// Of listings in a row: a store may go on listing what it has ended.
constexpr int most_rounds = 10;

bool is_forgotten(const job_context &context, const worker_settings &settings,
                  const std::string &location, const s3_upload &upload) {
  // By the store's clock and ours; within seven days they may differ by hours.
  const bool is_old = qx_get_tstamp() - upload.initiated > forgotten_after;
  if (!is_old || !first_id_of(upload.key)) return false;
  const std::string path = path_in_cache(settings, upload.key);
  // The record says that this node goes on with it.
  if (path.empty() || ::access(parts_record_path(path).c_str(), F_OK) == 0) return false;
  // Another node may be sending it.
  return !context.queue.is_claimed(location, upload.key).value_or(true);
}

// Whether there may be more behind what was listed and ended.
bool sweep_page(const job_context &context, const worker_settings &settings,
                const std::string &location) {
  transfer_locations::lease client = context.locations.client(location);
  if (!client) return false;
  const s3_upload_listing listing = client->uploads("");
  client.tell(listing.answer);
  bool has_ended = false;
  for (const s3_upload &upload : listing.uploads) {
    if (context.control.stop) return false;
    if (!is_forgotten(context, settings, location, upload)) continue;
    const s3_answer answer = client->abort(upload.key, upload.id);
    client.tell(answer);
    if (!answer) continue;
    has_ended = true;
    ++context.state.counters.swept;
    QX_LOG(FR_LOG_NOTICE, "location %s: a forgotten upload of [%s] was ended\n", location.c_str(),
           upload.key.c_str());
  }
  return has_ended && listing.has_more;
}

}  // namespace

void sweep_forgotten_parts(const job_context &context, const worker_settings &settings) {
  // One location after the other; what is missed today is found tomorrow.
  for (const std::string &location : context.locations.names()) {
    const auto permit = context.locations.start(location);
    if (!permit) continue;
    for (int round = 1; sweep_page(context, settings, location) && round < most_rounds; ++round) {
    }
  }
}
