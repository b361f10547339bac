// The socket of the transfer service: who may talk to it, and what it refuses.
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "platform/base/deadline.h"
#include "platform/base/ids.h"
#include "tests/threads/transfer_host_fixture.h"

namespace {

// What the service says next.
receiving hear(const unique_fd &socket, transfer_message &message) {
  const deadline patience(30);
  EXPECT_TRUE(wait_ready(socket.get(), POLLIN, &patience));
  return receive_message(socket.get(), message);
}

using TransferSocket = TransferHost;

TEST_F(TransferSocket, WhatIsNotUnderstoodEndsItsConnectionOnly) {
  serving daemon(path);
  const storage_session found = fetch("rc/1/2/1.wav");
  const download_order order = daemon.next();
  const std::string good = encode_message({.word = transfer_word::queued});
  const auto changed = [&good](std::size_t at, char byte) {
    std::string datagram = good;
    datagram[at] = byte;
    return datagram;
  };
  const std::string wrong[] = {good.substr(1),
                               good + "x",
                               changed(0, 1),
                               changed(4, 9),
                               changed(8, 77),
                               changed(24, 1),
                               changed(27, '\x7f'),
                               encode_message({.word = transfer_word::done}),
                               std::string(longest_datagram + 1, 'x')};
  for (const std::string &datagram : wrong) {
    const unique_fd host = connect_to_service(path);
    EXPECT_EQ(send_datagram(host.get(), datagram), 0);
    transfer_message answer;
    EXPECT_EQ(hear(host, answer), receiving::ended);
  }
  EXPECT_EQ(log.count("closed a connection that said what is not understood"), std::size(wrong));
  write_whole(order, "");
  EXPECT_EQ(end_of(found), QX_STORAGE_READY);
}

TEST_F(TransferSocket, OnlyAnEmptyFileThatCanBeReadAndWrittenIsATarget) {
  serving daemon(path);
  box.write_file("full", "x");
  box.write_file("empty", "");
  const std::string empty = box.path("empty");
  const unique_fd targets[] = {unique_fd(), unique_fd(::open(empty.c_str(), O_WRONLY)),
                               unique_fd(::open(empty.c_str(), O_RDWR | O_APPEND)),
                               unique_fd(::open(box.path("full").c_str(), O_RDWR)),
                               unique_fd(::open("/dev/null", O_RDWR))};
  const unique_fd host = connect_to_service(path);
  for (const unique_fd &target : targets) {
    const std::string order =
        encode_message({.word = transfer_word::download, .id = 5, .first = place, .second = "k"});
    EXPECT_EQ(send_datagram(host.get(), order, target.get()), 0);
    transfer_message answer;
    EXPECT_EQ(hear(host, answer), receiving::message);
    EXPECT_EQ(answer.word, transfer_word::done);
    EXPECT_EQ(answer.id, 5U);
    EXPECT_EQ(answer.status, QX_STORAGE_FAILED);
  }
}

TEST_F(TransferSocket, ASlowReaderOfTheStateDelaysNoOther) {
  serving daemon(path);
  daemon.state = std::string(5'000'000, 's');
  const unique_fd reader = connect_to_service(path);
  EXPECT_EQ(send_datagram(reader.get(), encode_message({.word = transfer_word::status})), 0);
  const storage_session found = fetch("rc/1/2/1.wav");
  write_whole(daemon.next(), "");
  EXPECT_EQ(end_of(found), QX_STORAGE_READY);
  std::string text;
  for (transfer_message piece;;) {
    ASSERT_EQ(hear(reader, piece), receiving::message);
    if (piece.first.empty()) break;
    text += piece.first;
  }
  EXPECT_EQ(text, daemon.state);
}

TEST_F(TransferSocket, TheSocketBelongsToOneServiceAndItsGroup) {
  {
    serving daemon(path);
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0660U);
    EXPECT_THROW(serving second(path), std::runtime_error);
    if (::geteuid() == 0) {
      EXPECT_EQ(::chmod(path.c_str(), 0666), 0);
      const auto is_let_in = [this](uid_t user, gid_t group) {
        return support::run_forked([&] {
                 const std::string folder =
                     box.path("run/spoolcap");  // others may not go there by path
                 if (::chdir(folder.c_str()) != 0 || ::setgroups(1, &group) != 0 ||
                     ::setgid(4321) != 0 || ::setuid(user) != 0) {
                   return false;
                 }
                 const unique_fd host = connect_to_service("transfer.sock");
                 const std::string question = encode_message({.word = transfer_word::status});
                 if (!host) return false;
                 send_datagram(host.get(), question);
                 transfer_message answer;
                 return hear(host, answer) == receiving::message;
               }) == 0;
      };
      uid_t user = 0;
      gid_t group = 0;
      ASSERT_EQ(get_ids("asterisk", "asterisk", &user, &group), 0);
      EXPECT_FALSE(is_let_in(4321, 4321));
      EXPECT_TRUE(log.has("refused a connection of a user that is not trusted"));
      EXPECT_TRUE(is_let_in(4321, group));
      EXPECT_TRUE(is_let_in(user, 4321));
    }
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  box.write_file("run/spoolcap/transfer.sock", "a file of somebody's");
  EXPECT_THROW(serving second(path), std::runtime_error);
}

}  // namespace
