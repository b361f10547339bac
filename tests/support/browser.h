// A real browser without a window, driven over two pipes by its own protocol of JSON messages.
//
// It needs the Debian package chromium-headless-shell. All functions throw std::runtime_error when
// the browser refuses a command.
#ifndef TESTS_SUPPORT_BROWSER_H
#define TESTS_SUPPORT_BROWSER_H

#include <rapidjson/document.h>

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/servers.h"

namespace support {

class browser {
 public:
  // Whether it is installed.
  static bool exists();

  browser();

  // Loads a file, and waits until the page has drawn itself.
  void open(const std::string &path);

  // The value of an expression, or of the promise that it is, as text.
  std::string value(const std::string &expression);

  // Presses and releases the mouse in the middle of the first element that the selector finds.
  void click(const std::string &selector);
  // Types a text where the focus is.
  void type(const std::string &text);
  // Presses a key: "Enter", "ArrowRight".
  void press(const std::string &key);
  // Prints the page; the number of bytes of the PDF.
  size_t print();
  // The medium, "screen" or "print", and the colours, "light" or "dark", that the system asks for.
  void set_media(const std::string &medium, const std::string &colours);

  // Addresses that the page asked for, errors of its scripts, dialogs that it opened, and whatever
  // its policy refused; all but the page itself is a fault.
  const std::vector<std::string> &events() const { return events_; }

 private:
  rapidjson::Document call(const std::string &method, const std::string &parameters = "{}");
  std::string next_message();
  void note(const rapidjson::Document &message);

  private_folder folder_{"browser"};
  unique_fd to_, from_;
  background_process process_;
  std::string received_;
  std::string session_;
  int last_call_ = 0;
  std::vector<std::string> events_;
};

}  // namespace support

#endif
