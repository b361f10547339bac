// Hosts and the service: who ends which download, and when.
#include "tests/threads/transfer_host_fixture.h"

namespace {

TEST_F(TransferHost, ADownloadEndsAsTheServiceSays) {
  serving daemon(path);
  const storage_session good = fetch("rc/1/2/1.wav"), bad = fetch("rc/1/2/2.wav");
  download_order first = daemon.next(), second = daemon.next();
  EXPECT_EQ(first.location_text, place);
  EXPECT_EQ(first.key, "rc/1/2/1.wav");
  second.done(false);
  EXPECT_EQ(end_of(bad), QX_STORAGE_FAILED);
  EXPECT_EQ(state_of(good), QX_STORAGE_PENDING);
  write_whole(first, "content");
  EXPECT_EQ(end_of(good), QX_STORAGE_READY);
  EXPECT_EQ(box.read_file(qx_storage_get_file_path(good.get())), "content");
}

TEST_F(TransferHost, WithoutTheServiceFilesAreStoredAndDownloadsRefused) {
  for (const bool is_first : {true, false}) {
    EXPECT_EQ(state_of(fetch("rc/1/2/absent.wav")), QX_STORAGE_FAILED);
    EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, "x"), 0);
    EXPECT_EQ(row("recording", 7), "rc/1/2/7.wav|s3|eu@n1");
    serving daemon(path);
    EXPECT_EQ(stored(QX_STORAGE_RECORDING, 8, "x"), 0);
    daemon.wait_until_told(1);
    const storage_session found = fetch("rc/1/2/" + std::to_string(is_first) + ".wav");
    write_whole(daemon.next(), "");
    EXPECT_EQ(end_of(found), QX_STORAGE_READY) << "it came back without a restart of the host";
  }
  EXPECT_EQ(log.count("Cannot reach the transfer service at [" + path), 2U) << "once per absence";
  EXPECT_EQ(state_of(storage_session(qx_storage_session_retrieve(1, "k", "s3", nullptr))),
            QX_STORAGE_FAILED)
      << "its row does not say where it is";
}

TEST_F(TransferHost, AKilledServiceEndsAllItsDownloadsOnce) {
  for (int round = 0; round < 3; ++round) {
    const auto daemon = deaf_service();
    const auto before = fetch_all("a", 50);
    daemon->kill(SIGKILL);
    const auto meanwhile = fetch_all("b", 30);
    for (const storage_session &one : before) EXPECT_EQ(end_of(one), QX_STORAGE_FAILED);
    for (const storage_session &one : meanwhile) EXPECT_EQ(end_of(one), QX_STORAGE_FAILED);
  }
  serving daemon(path);
  const storage_session found = fetch("rc/1/2/7.wav");
  write_whole(daemon.next(), "x");
  EXPECT_EQ(end_of(found), QX_STORAGE_READY) << "the socket of a dead service is taken over";
}

TEST_F(TransferHost, StoppingEndsAllDownloadsAndStartingBeginsAnew) {
  serving daemon(path);
  for (int round = 0; round < 3; ++round) {
    const auto sessions = fetch_all("rc", 20);
    const storage_session unwritten = written(QX_STORAGE_RECORDING, "wav", "x");
    qx_transfer_stop();
    for (const storage_session &one : sessions) EXPECT_EQ(state_of(one), QX_STORAGE_FAILED);
    for (int i = 0; i < 20; ++i) daemon.next().done(true);  // too late
    EXPECT_EQ(qx_storage_commit_file(unwritten.get(), 7), 0) << "its location is known";
    EXPECT_EQ(fetch("rc/1/2/1.wav"), nullptr);
    qx_transfer_stop();
    EXPECT_EQ(qx_transfer_start(), 0);
  }
  log.expect(FR_LOG_ERROR, "TRANSFER_LOCATION is missing");
  box.write_file("etc/quorvex/transfer.conf", "");
  EXPECT_EQ(qx_transfer_start(), -1);
  const storage_session found = fetch("rc/1/2/1.wav");
  write_whole(daemon.next(), "");
  EXPECT_EQ(end_of(found), QX_STORAGE_READY) << "the earlier configuration stays";
}

TEST_F(TransferHost, AChildOfForkHasAConnectionOfItsOwn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer cannot follow threads that a child of threads begins";
#endif
  serving daemon(path);
  const storage_session ours = fetch("rc/1/2/1.wav");
  const download_order order = daemon.next();
  support::background_process child([] {
    const storage_session theirs = fetch("rc/1/2/2.wav");
    return end_of(theirs) == QX_STORAGE_READY && (qx_transfer_stop(), true);
  });
  write_whole(daemon.next(), "theirs");
  EXPECT_EQ(child.wait(std::chrono::seconds(60)).value().status, 0);
  EXPECT_EQ(state_of(ours), QX_STORAGE_PENDING);
  write_whole(order, "ours");
  EXPECT_EQ(end_of(ours), QX_STORAGE_READY);
}

}  // namespace
