// Objects of a real store: what goes there comes back.
#include <gtest/gtest.h>

#include "tests/support/object_store.h"

namespace {

class Objects : public testing::Test {
 protected:
  s3_control control;
  s3_client client{support::new_bucket(support::shared_object_store()), control};
};

TEST_F(Objects, ComeBackAsTheyWereSentWithTheirMetadata) {
  const support::stored_bytes sent("hello"), target("");
  const s3_answer put =
      client.put("vm/1/2/a.wav", sent.body(), {{"queued", "17.5"}, {"node", "n1"}});
  ASSERT_TRUE(put) << put.text;
  const s3_answer head = client.head("vm/1/2/a.wav");
  EXPECT_EQ(head.length, 5);
  EXPECT_EQ(head.etag, put.etag);
  EXPECT_EQ(head.metadata.at("queued"), "17.5");
  const s3_answer got = client.get("vm/1/2/a.wav", target.body().fd);
  ASSERT_TRUE(got) << got.text;
  EXPECT_EQ(support::content_of(target.body().fd), "hello");
  EXPECT_TRUE(client.remove("vm/1/2/a.wav"));
  EXPECT_EQ(client.head("vm/1/2/a.wav").outcome, s3_outcome::not_found);
  EXPECT_TRUE(client.remove("vm/1/2/a.wav"));
}

}  // namespace
