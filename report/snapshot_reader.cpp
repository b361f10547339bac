// Reads the document of a snapshot as it streams by; only the accounts are held.
// The file may come from anywhere: nothing in it is believed.
#include <rapidjson/reader.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <new>
#include <utility>

#include "platform/base/utf8.h"
#include "report/command.h"
#include "report/compressed.h"
#include "report/snapshot.h"

namespace {

constexpr std::int64_t known_version = 1;

// -1 for what is no such time, which makes the document incomplete.
std::int64_t time_of(std::string_view iso) {
  tm parts = {};
  const std::string text(iso);
  const char *end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return end != nullptr && *end == '\0' ? ::timegm(&parts) : -1;
}

// What an account has before its members are read: nothing is known.
report_account unknown_account() {
  report_account account;
  std::fill_n(account.used, QUOTA_ALL_KINDS, -1);
  std::fill_n(account.limit, QUOTA_ALL_KINDS, -1);
  std::fill_n(account.modified, QUOTA_ALL_KINDS, -1);
  std::fill_n(account.updates, QUOTA_ALL_KINDS, 0);
  std::fill_n(account.states, QUOTA_ALL_KINDS, figure_state::missing);
  return account;
}

// Thrown through the parser, which has no other way to report it.
class too_long {};

// The memory of the parser, which holds the text at hand. No login is as long.
class bounded_memory : public rapidjson::CrtAllocator {
 public:
  static void *Realloc(void *old, size_t, size_t size) {
    constexpr size_t most = 4096;
    if (size > most) throw too_long();
    void *const memory = std::realloc(old, size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
  }
};

using json_reader = rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, bounded_memory>;

enum class json_type { boolean, number, fraction, text, object, array };

struct member {
  std::string_view name;
  json_type type;
};

// What may stand where. A member with another type than this makes the file no snapshot.
constexpr member head_members[] = {{"format", json_type::text},
                                   {"version", json_type::number},
                                   {"taken", json_type::text},
                                   {"host", json_type::text},
                                   {"accounts", json_type::array}};
constexpr member account_members[] = {
    {"id", json_type::number},     {"parent", json_type::number},  {"level", json_type::number},
    {"name", json_type::text},     {"used", json_type::object},    {"limit", json_type::object},
    {"states", json_type::object}, {"updates", json_type::object}, {"age", json_type::number}};
constexpr member figure_members[] = {{"used", json_type::number},
                                     {"limit", json_type::number},
                                     {"states", json_type::text},
                                     {"updates", json_type::number}};

std::optional<json_type> type_of(std::span<const member> members, std::string_view name) {
  const auto found = std::find_if(members.begin(), members.end(),
                                  [&](const member &one) { return one.name == name; });
  return found == members.end() ? std::nullopt : std::optional(found->type);
}

// The events of the parser. Skips null, and members that it does not know, whatever they hold. A
// false ends the parse: the document is no snapshot.
class document_reader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, document_reader> {
 public:
  explicit document_reader(report_platform &platform) : platform_(platform) {
    platform_.texts = std::make_unique<std::pmr::monotonic_buffer_resource>();
  }

  // Depth and lists say where a member stands; its key alone does not.
  bool StartObject() {
    if (!takes(json_type::object)) return false;
    ++depth_;
    if (is_account()) platform_.accounts.push_back(unknown_account());
    return true;
  }
  bool EndObject(rapidjson::SizeType) {
    const bool is_sound = !is_account() || is_sound_account();
    --depth_;
    return is_sound;
  }
  bool StartArray() {
    if (!takes(json_type::array)) return false;
    in_list_ = in_list_ || (is_in_head() && keys_[0] == "accounts");
    has_list_ = has_list_ || in_list_;
    ++arrays_;
    return true;
  }
  bool EndArray(rapidjson::SizeType) {
    --arrays_;
    in_list_ = in_list_ && arrays_ > 0;
    return true;
  }
  bool Key(const char *text, rapidjson::SizeType size, bool) {
    // Keys of objects that ended go away here.
    keys_.resize(depth_);
    keys_.back().assign(text, size);
    return true;
  }
  bool Bool(bool) { return takes(json_type::boolean); }
  bool Double(double) { return takes(json_type::fraction); }
  bool Int(int value) { return number(value); }
  bool Uint(unsigned value) { return number(value); }
  bool Int64(std::int64_t value) { return number(value); }
  // What is above the numbers of 32 bits and not negative comes here.
  bool Uint64(std::uint64_t value) {
    return std::in_range<std::int64_t>(value) ? number(static_cast<std::int64_t>(value))
                                              : takes(json_type::fraction);
  }
  bool String(const char *text, rapidjson::SizeType size, bool) {
    const std::string_view value(text, size);
    if (!takes(json_type::text)) return false;
    if (is_in_head()) return head_text(value);
    if (in_accounts() && depth_ == 2 && keys_[1] == "name") {
      account().login = keep_text(platform_, value);
    }
    return !in_accounts() || depth_ != 3 || keys_[1] != "states" || set_state(value);
  }

  bool is_complete() const {
    return is_report_ && version_ == known_version && platform_.taken >= 0 && has_list_;
  }
  bool is_newer() const { return is_report_ && version_ > known_version; }

 private:
  bool is_in_head() const { return arrays_ == 0 && depth_ == 1; }
  // Whether this is an account or a part of one, but not in an array of its own.
  bool in_accounts() const { return in_list_ && arrays_ == 1 && depth_ >= 2; }
  bool is_account() const { return in_accounts() && depth_ == 2; }
  report_account &account() { return platform_.accounts.back(); }

  // Whether a value of this type may stand here. More around it than any version has would only
  // take memory.
  bool takes(json_type type) const {
    constexpr size_t deepest = 8;
    const std::optional<json_type> wanted = wanted_type();
    return depth_ + arrays_ < deepest && (!wanted || *wanted == type);
  }

  // The type of the value that comes next; nothing where it is not read.
  std::optional<json_type> wanted_type() const {
    if (arrays_ == 0 && depth_ == 0) return json_type::object;
    if (is_in_head()) return type_of(head_members, keys_[0]);
    if (!in_list_ || arrays_ != 1) return std::nullopt;
    if (depth_ == 1) return json_type::object;
    if (depth_ == 2) return type_of(account_members, keys_[1]);
    const bool is_figure = depth_ == 3 && kind() != QUOTA_ALL_KINDS;
    return is_figure ? type_of(figure_members, keys_[1]) : std::nullopt;
  }

  // Ids rise, so that no account is there twice.
  bool is_sound_account() const {
    const std::deque<report_account> &all = platform_.accounts;
    const std::uint32_t last = all.size() < 2 ? 0 : all[all.size() - 2].id;
    return all.back().id > last && is_reported(all.back().level);
  }

  bool head_text(std::string_view value) {
    if (keys_[0] == "format") is_report_ = value == "spoolcap-report";
    if (keys_[0] == "taken") platform_.taken = time_of(value);
    if (keys_[0] == "host") platform_.host = valid_utf8(value);
    // Another format ends the parse at once, however long the file is.
    return keys_[0] != "format" || is_report_;
  }

  bool number(std::int64_t value) {
    if (!takes(json_type::number)) return false;
    if (is_in_head() && keys_[0] == "version") {
      version_ = value;
      // A newer document is not read on: its members may mean something else.
      return value <= known_version;
    }
    if (in_accounts() && depth_ == 2) return set_member(value);
    if (in_accounts() && depth_ == 3) return set_figure(value);
    return true;
  }

  // Whether the number is one that the member can have.
  template <class Number>
  static bool set(Number &member, std::int64_t value) {
    if (value < 0 || !std::in_range<Number>(value)) return false;
    member = static_cast<Number>(value);
    return true;
  }

  bool set_member(std::int64_t value) {
    if (keys_[1] == "id") return set(account().id, value);
    if (keys_[1] == "parent") return set(account().parent, value);
    if (keys_[1] == "level") return set(account().level, value);
    if (keys_[1] != "age") return true;
    // The age is that of the oldest file, so all kinds get its time: once it is known when the
    // snapshot was taken, which may stand behind.
    std::fill_n(account().modified, QUOTA_ALL_KINDS, value);
    return value >= 0;
  }

  // The place of the member's kind; QUOTA_ALL_KINDS for none that this version has.
  size_t kind() const {
    const auto *const found =
        std::find_if(std::begin(media_kinds), std::end(media_kinds),
                     [&](const media_kind &one) { return keys_[2] == one.name; });
    return static_cast<size_t>(found - std::begin(media_kinds));
  }

  bool set_figure(std::int64_t value) {
    const size_t place = kind();
    // A kind that a newer build knows.
    if (place == QUOTA_ALL_KINDS) return true;
    if (keys_[1] == "used") return set(account().used[place], value);
    if (keys_[1] == "limit") return set(account().limit[place], value);
    return keys_[1] != "updates" || set(account().updates[place], value);
  }

  bool set_state(std::string_view name) {
    const size_t place = kind();
    if (place == QUOTA_ALL_KINDS) return true;
    for (size_t state = 0; state < figure_states; ++state) {
      if (name != name_of(static_cast<figure_state>(state))) continue;
      account().states[place] = static_cast<figure_state>(state);
      return true;
    }
    return false;
  }

  report_platform &platform_;
  std::vector<std::string> keys_;  // of the objects around, the outermost first
  size_t depth_ = 0;               // of objects
  size_t arrays_ = 0;              // around the value
  bool in_list_ = false;           // of the accounts
  bool has_list_ = false;
  bool is_report_ = false;
  std::int64_t version_ = 0;
};

bool read_document(decompressed_file &content, document_reader &document) {
  json_reader reader;
  // Iterative: brackets within brackets take no stack.
  constexpr unsigned careful =
      rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag;
  try {
    return !reader.Parse<careful>(content, document).IsError() && content.has_ended();
  } catch (const too_long &) {
    return false;
  }
}

// Turns ages into times. False when one is older than time itself.
bool date_files(report_platform &platform) {
  for (report_account &account : platform.accounts) {
    for (std::int64_t &modified : account.modified) {
      if (modified > platform.taken) return false;
      if (modified >= 0) modified = platform.taken - modified;
    }
  }
  return true;
}

}  // namespace

report_platform read_snapshot(const std::string &path) {
  decompressed_file content(path);
  report_platform platform;
  platform.taken = -1;
  document_reader document(platform);
  const bool read = read_document(content, document);
  if (document.is_newer()) throw report_trouble(path + ": was written by a newer version");
  if (!read || !document.is_complete() || !date_files(platform)) {
    throw report_trouble(path + ": is no snapshot");
  }
  return platform;
}
