// The page in a real browser: it draws, opens, searches, sorts and prints, and logins stay text.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "tests/support/browser.h"
#include "tests/support/sandbox.h"

namespace {

// Reseller 1 (ann) with client 2 (bob) and users 12 (cid), 13 (dan); client 3 (eve) with user 14.
class Page : public testing::Test {
 protected:
  void SetUp() override {
    if (support::browser::exists()) return;
    ASSERT_EQ(std::getenv("SPOOLCAP_NEEDS_BROWSER"), nullptr)
        << "chromium-headless-shell is missing";
    GTEST_SKIP() << "chromium-headless-shell is missing";
  }

  void add_accounts() {
    box.add_reseller(1, "ann");
    box.add_client(2, 1, "bob");
    box.add_client(3, 1, "eve");
    box.add_owner(12, 2, "cid");
    box.add_owner(13, 2, "dan");
    box.add_owner(14, 3, "fay");
    box.set_preference(12, "fax_storage", "1");
    box.set_preference(3, "fax_storage", "1");  // its figure is not known
    for (const auto &[place, bytes] : {std::pair("1/fax", "9000.0"),
                                       {"1/2/fax", "8000.0"},
                                       {"1/2/12/fax", "2048.0"},
                                       {"1/2/13/fax", "5000.0"},
                                       {"1/3/14/fax", "1000.0"}}) {
      box.write_file(box.quota_path(place), bytes);
    }
    for (const char *place : {"1/music", "1/2/music", "1/2/13/music"}) {
      box.write_file(box.quota_path(place), "600.3");
    }
  }

  support::browser &open_page() {
    const auto result = box.run_report({"page", box.path("page.html")});
    EXPECT_EQ(result.status, 0) << result.err;
    browser_ = std::make_unique<support::browser>();
    browser_->open(box.path("page.html"));
    return *browser_;
  }

  std::string text_of(const std::string &selector) {
    return browser_->value("document.querySelector('" + selector + "').textContent");
  }
  // The first cells of all rows in the table.
  std::string logins() {
    return browser_->value(
        "[...document.querySelectorAll('[data-row] td:first-child')]"
        ".map((cell) => cell.textContent)");
  }

  support::sandbox box;
  std::unique_ptr<support::browser> browser_;
};

TEST_F(Page, DrawsTheTreeAndOpensWhatIsClickedOrEntered) {
  add_accounts();
  support::browser &page = open_page();
  // The reseller around its clients, and these around their users and what is their own.
  EXPECT_EQ(page.value("document.querySelectorAll('.tile').length"), "7");
  EXPECT_EQ(text_of(".card .figure"), "9.4\u00a0KiB");
  // Of eve, only what a user has is known.
  EXPECT_EQ(page.value("document.querySelector('[aria-label^=eve]').ariaLabel"),
            "eve, \u2265\u00a01000\u00a0B");
  page.click("[aria-label^='bob,'] .name");
  EXPECT_EQ(text_of("#path"), "All accountsannbob");
  EXPECT_EQ(page.value("[...document.querySelectorAll('.tile')].map((tile) => tile.ariaLabel)"),
            "dan, 5.5\u00a0KiB,cid, 2.0\u00a0KiB, \u25b2 200.0\u00a0%,own files, 952\u00a0B");
  EXPECT_EQ(text_of("#count"), "3 of 3");
  EXPECT_EQ(page.value("document.querySelectorAll('.over .striped').length"), "1");
  page.click("#path button");
  page.value("document.querySelector('#map > svg').focus()");
  page.press("ArrowDown");
  EXPECT_EQ(page.value("document.querySelector('.active').ariaLabel.slice(0, 3)"), "bob");
  page.press("Enter");
  EXPECT_EQ(text_of("[aria-current]"), "bob");
  page.press("Escape");
  EXPECT_EQ(text_of("[aria-current]"), "ann");
  page.click("#kind-choice label:last-child");
  EXPECT_EQ(page.value("[...document.querySelectorAll('.tile')].map((tile) => tile.ariaLabel)"),
            "bob, 600\u00a0B,dan, 600\u00a0B");
  EXPECT_EQ(text_of(".card.over .figure"), "0") << "that is a fax's";
  page.click("#kind-choice label:nth-of-type(5)");
  EXPECT_EQ(text_of(".empty"), "Nothing is stored here");
}

TEST_F(Page, SearchesSortsAndFilters) {
  add_accounts();
  support::browser &page = open_page();
  EXPECT_EQ(logins(), "ann,bob,dan,cid,fay,eve");
  EXPECT_EQ(text_of("[data-row=\"5\"] .number:nth-child(6)"), "\u2013") << "it has a limit";
  EXPECT_EQ(text_of("[data-row=\"5\"] .number:nth-child(5)"), "\u2013");
  page.click("[data-sort=login]");
  EXPECT_EQ(logins(), "ann,bob,cid,dan,eve,fay");
  page.click("[data-sort=login]");
  EXPECT_EQ(logins(), "fay,eve,dan,cid,bob,ann");
  // Without a limit last, whatever the direction.
  page.click("[data-sort=percent]");
  EXPECT_EQ(logins(), "cid,ann,bob,eve,dan,fay");
  page.click("#search");
  page.type("A");
  EXPECT_EQ(logins(), "ann,dan,fay");
  page.press("ArrowDown");
  page.press("ArrowDown");
  EXPECT_EQ(text_of("tr.selected td"), "ann");
  EXPECT_EQ(text_of("#details h2"), "ann");
  page.press("Escape");
  EXPECT_EQ(text_of("#count"), "6 of 6");
  page.click("[data-filter=over]");
  EXPECT_EQ(logins(), "cid");
  EXPECT_EQ(page.value("[...document.querySelectorAll('[data-row] td')]"
                       ".slice(0, -1).map((cell) => cell.textContent)"),
            "cid,12,user,bob,2.0\u00a0KiB,\u25b2 200.0\u00a0%,2.0\u00a0KiB / 1.0\u00a0KiB,"
            "\u2013,\u2013,\u2013,\u2013,? missing");
}

TEST_F(Page, KeepsHostileLoginsText) {
  box.sql("ALTER TABLE hs_account MODIFY username VARBINARY(191)");
  box.sql("ALTER TABLE client MODIFY name VARBINARY(300)");
  const std::vector<std::pair<std::string, std::string>> logins_and_shown = {
      {"</script><script>alert(1)</script>", "</script><script>alert(1)</script>"},
      {"<!--<script>", "<!--<script>"},
      {"<img src=http://127.0.0.1/x onerror=alert(1)>",
       "<img src=http://127.0.0.1/x onerror=alert(1)>"},
      {"it's \"q\" \\ ${1} &amp;", "it's \"q\" \\ ${1} &amp;"},
      {"a\u2028b\nc", "a\u20392028\u203ab\u2039000A\u203ac"},
      {"\u202egnp\U000e0041", "\u2039202E\u203agnp\u2039E0041\u203a"},
      {"\xff\x1b[31m", "\ufffd\u2039001B\u203a[31m"}};
  int id = 1;
  for (const auto &[login, shown] : logins_and_shown) {
    box.add_reseller(id, login);
    box.write_file(box.quota_path(std::to_string(id) + "/fax"), std::to_string(9000 - id) + ".0");
    ++id;
  }
  support::browser &page = open_page();
  for (size_t i = 0; i < logins_and_shown.size(); ++i) {
    const std::string row = "[data-row=\"" + std::to_string(i) + "\"] td";
    EXPECT_EQ(text_of(row), logins_and_shown[i].second);
    const std::string tile = "#tile" + std::to_string(i) + " .name";
    EXPECT_EQ(text_of(tile), logins_and_shown[i].second);
    page.click("#tile" + std::to_string(i) + " rect");
    EXPECT_EQ(text_of("#details h2"), logins_and_shown[i].second);
  }
  EXPECT_EQ(page.value("document.scripts.length + ' ' + document.images.length"), "3 0");
  // The page itself, and nothing else: no request, no dialog, no complaint.
  EXPECT_EQ(page.events().size(), 1U) << testing::PrintToString(page.events());
}

TEST_F(Page, AllowsNoOtherScriptStyleOrRequest) {
  add_accounts();
  support::browser &page = open_page();
  page.value("window.refused = new Set");
  page.value(
      "document.addEventListener('securitypolicyviolation',"
      " (event) => refused.add(event.effectiveDirective))");
  page.value(
      "document.body.append(Object.assign(document.createElement('script'),"
      " {textContent: 'window.foreign = 1'}))");
  page.value(
      "document.body.insertAdjacentHTML('beforeend',"
      " '<p style=\"color: red\"><img src=\"http://127.0.0.1/x\">')");
  EXPECT_EQ(page.value("fetch('http://127.0.0.1/x').catch(() => 'refused')"), "refused");
  EXPECT_EQ(page.value("[...refused].sort()"),
            "connect-src,img-src,script-src-elem,style-src-attr");
  EXPECT_EQ(page.value("window.foreign"), "undefined");
}

TEST_F(Page, PrintsAndFollowsTheColoursOfTheSystem) {
  add_accounts();
  support::browser &page = open_page();
  const std::string ground = "getComputedStyle(document.body).backgroundColor";
  page.set_media("screen", "light");
  EXPECT_EQ(page.value(ground), "rgb(244, 246, 248)");
  page.set_media("screen", "dark");
  EXPECT_EQ(page.value(ground), "rgb(15, 20, 26)");
  page.set_media("print", "dark");
  EXPECT_EQ(page.value(ground), "rgb(255, 255, 255)");
  EXPECT_EQ(page.value("getComputedStyle(controls).display"), "none");
  page.value(
      "addEventListener('beforeprint', () => {"
      " printed = document.querySelectorAll('[data-row]').length +"
      " ' ' + document.querySelectorAll('.tile').length;"
      " })");
  EXPECT_GT(page.print(), 10'000U);
  EXPECT_EQ(page.value("printed"), "6 7");
  EXPECT_EQ(text_of("#print-note"), "The first 6 of 6 accounts, in the order of the table.");
}

// The rows are put into a page that is there: quota files of so many accounts take a minute.
TEST_F(Page, FoldsWhatAreTooManyRectangles) {
  ASSERT_EQ(box.run_report({"page", box.path("page.html")}).status, 0);
  std::ostringstream rows;
  const auto add_row = [&](int id, const char *parent, int level, int fax) {
    rows << (rows.tellp() > 0 ? ",[" : "[") << id << ',' << parent << ',' << level << ",\"user"
         << id << "\",[" << fax << R"(,0,0,0,0],[null,null,null,null,null],"04444",5])";
  };
  add_row(1, "null", 10, 30000000);
  add_row(2, "1", 50, 30000000);
  for (int id = 1000; id < 7000; ++id) add_row(id, "2", 100, id);
  std::string text = box.read_file("page.html").value();
  const std::string before = R"("accounts":[)";
  text.insert(text.find(before) + before.size(), rows.str());
  box.write_file("page.html", text);
  browser_ = std::make_unique<support::browser>();
  support::browser &page = *browser_;
  page.open(box.path("page.html"));
  page.click("[aria-label^='user2,'] .name");
  EXPECT_EQ(page.value("document.querySelectorAll('.tile').length"), "5000");
  // 6,000 users and the client's own files, of which the 4,999 greatest are drawn.
  EXPECT_EQ(page.value("document.querySelector('.folded').ariaLabel"),
            "other (1,002), 1.4\u00a0MiB");
  page.click(".folded rect");
  EXPECT_EQ(page.value("document.activeElement.id"), "table");
  page.press("End");
  EXPECT_EQ(text_of("tr.selected td"), "user1000");
  EXPECT_EQ(page.value("document.querySelectorAll('[data-row]').length < 100"), "true");
}

}  // namespace
