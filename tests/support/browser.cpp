#include "tests/support/browser.h"

#include <fcntl.h>
#include <poll.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/stat.h>

#include <set>
#include <stdexcept>

namespace support {
namespace {

constexpr const char *program = "/usr/bin/chromium-headless-shell";
constexpr int patience = 60'000;  // milliseconds

// Opened for both directions, so that neither end waits for the other.
unique_fd pipe_at(const std::string &path) {
  if (::mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("cannot make " + path);
  return unique_fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
}

std::string json_text(std::string_view text) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> json(buffer);
  json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  return buffer.GetString();
}

std::string text_of(const rapidjson::Value &value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> json(buffer);
  value.Accept(json);
  return buffer.GetString();
}

}  // namespace

bool browser::exists() {
  return ::access(program, X_OK) == 0;
}

browser::browser()
    : to_(pipe_at(folder_.path() / "to")),
      from_(pipe_at(folder_.path() / "from")),
      // Descriptors 3 and 4 are where it looks for its pipes.
      process_({"/bin/sh", "-c", "cd \"$1\" && shift && exec \"$@\" 3<to 4>from", "sh",
                folder_.path(), program, "--no-sandbox", "--disable-gpu", "--disable-sync",
                "--disable-dev-shm-usage", "--disable-background-networking",
                "--disable-component-update", "--window-size=1400,1000", "--remote-debugging-pipe",
                "--user-data-dir=" + (folder_.path() / "profile").string(), "about:blank"},
               {.environment = {{"LD_PRELOAD", {}}}}) {
  const rapidjson::Document target = call("Target.createTarget", R"({"url": "about:blank"})");
  const rapidjson::Document attached =
      call("Target.attachToTarget",
           R"({"flatten": true, "targetId": )" + text_of(target["result"]["targetId"]) + "}");
  session_ = attached["result"]["sessionId"].GetString();
  for (const char *domain : {"Page", "Network", "Runtime", "Log"}) {
    call(std::string(domain) + ".enable");
  }
}

rapidjson::Document browser::call(const std::string &method, const std::string &parameters) {
  const int id = ++last_call_;
  const std::string session = session_.empty() ? "" : R"(, "sessionId": )" + json_text(session_);
  const std::string message = "{\"id\": " + std::to_string(id) +
                              ", \"method\": " + json_text(method) + ", \"params\": " + parameters +
                              session + "}";
  // The NUL at the end ends the message.
  if (::write(to_.get(), message.c_str(), message.size() + 1) !=
      static_cast<ssize_t>(message.size() + 1)) {
    throw std::runtime_error("the browser takes no message");
  }
  for (;;) {
    rapidjson::Document answer;
    const std::string text = next_message();
    answer.Parse(text.c_str());
    if (!answer.HasMember("id")) {
      note(answer);
    } else if (answer["id"].GetInt() == id) {
      if (answer.HasMember("error")) throw std::runtime_error(text);
      return answer;
    }
  }
}

std::string browser::next_message() {
  for (;;) {
    if (const size_t end = received_.find('\0'); end != received_.npos) {
      std::string message = received_.substr(0, end);
      received_.erase(0, end + 1);
      return message;
    }
    pollfd ready{from_.get(), POLLIN, 0};
    char buffer[65536];
    const ssize_t size =
        ::poll(&ready, 1, patience) == 1 ? ::read(from_.get(), buffer, sizeof buffer) : 0;
    if (size <= 0) throw std::runtime_error("the browser does not answer");
    received_.append(buffer, static_cast<size_t>(size));
  }
}

void browser::note(const rapidjson::Document &message) {
  static const std::set<std::string> noted = {"Network.requestWillBeSent",
                                              "Runtime.exceptionThrown", "Runtime.consoleAPICalled",
                                              "Log.entryAdded", "Page.javascriptDialogOpening"};
  const std::string method = message["method"].GetString();
  if (noted.contains(method)) events_.push_back(method + " " + text_of(message["params"]));
}

void browser::open(const std::string &path) {
  call("Page.navigate", R"({"url": )" + json_text("file://" + path) + "}");
  const auto is_drawn = [this] {
    return value("performance.getEntriesByName('drawn').length") == "1";
  };
  if (!eventually(is_drawn)) throw std::runtime_error("the page does not draw itself: " + path);
}

std::string browser::value(const std::string &expression) {
  const rapidjson::Document answer = call(
      "Runtime.evaluate", R"({"awaitPromise": true, "expression": )" +
                              json_text("Promise.resolve(" + expression + ").then(String)") + "}");
  const rapidjson::Value &result = answer["result"];
  if (result.HasMember("exceptionDetails")) throw std::runtime_error(text_of(result));
  return {result["result"]["value"].GetString(), result["result"]["value"].GetStringLength()};
}

void browser::click(const std::string &selector) {
  const std::string element = "document.querySelector(" + json_text(selector) + ")";
  value(element + ".scrollIntoView({block: 'center', behavior: 'instant'})");
  const std::string box = element + ".getBoundingClientRect()";
  const std::string at = "\"x\": " + value(box + ".x + " + box + ".width / 2") +
                         ", \"y\": " + value(box + ".y + " + box + ".height / 2");
  for (const char *type : {"mousePressed", "mouseReleased"}) {
    call("Input.dispatchMouseEvent",
         "{" + at + R"(, "button": "left", "clickCount": 1, "type": ")" + type + "\"}");
  }
}

void browser::type(const std::string &text) {
  call("Input.insertText", R"({"text": )" + json_text(text) + "}");
}

void browser::press(const std::string &key) {
  for (const char *type : {"rawKeyDown", "keyUp"}) {
    call("Input.dispatchKeyEvent", R"({"key": )" + json_text(key) + R"(, "code": )" +
                                       json_text(key) + R"(, "type": ")" + type + "\"}");
  }
}

size_t browser::print() {
  return call("Page.printToPDF")["result"]["data"].GetStringLength() / 4 * 3;
}

void browser::set_media(const std::string &medium, const std::string &colours) {
  call("Emulation.setEmulatedMedia",
       R"({"media": )" + json_text(medium) +
           R"(, "features": [{"name": "prefers-color-scheme", "value": )" + json_text(colours) +
           "}]}");
}

}  // namespace support
