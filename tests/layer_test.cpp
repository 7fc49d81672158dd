// The C++ layer as its users have it: publishers and readers are processes of their own.
#include "segment_fixture.h"
#include "trel/trel.hpp"

namespace {

struct Stats {
  uint64_t bytes;
  double mean;
  char last[16];
};

uint32_t number(const Key& key) { return key.id().key; }

// A publisher in another process, at work until it is killed.
struct Daemon {
  Shared<int> isReady;
  Child child;

  explicit Daemon(const Key& key, uint64_t requests)
      : child([&] {
          auto tree = trel::Publisher(number(key), "web");
          auto worker = tree.node("workers/a b", "worker");
          worker.counter("requests", "1", "requests served").add(requests);
          worker.gauge<int64_t>("depth").set(-3);
          worker.text("state", 8).set("too long for it");
          worker
              .record<Stats>("http", {{"bytes", &Stats::bytes, trel::counter, "bytes"},
                                      {"mean", &Stats::mean, trel::gauge, "seconds"},
                                      {"last", &Stats::last}})
              .update([](Stats& stats) {
                stats = {512, 0.25, "GET"};
              });
          tree.node("workers/second", "worker");
          *isReady = 1;
          pause();
        }) {
    while (!*isReady && child.isRunning()) usleep(1000);
  }
};

TEST(Layer, ReadsWhatItHasNeverSeen) {
  Key key;
  EXPECT_THROW(trel::Reader(number(key)), trel::Error);
  Daemon daemon(key, 7);
  const trel::Reader seen(number(key));
  std::string all;
  for (const auto& node : seen.nodes())
    for (const auto& value : node.values())
      all += node.path() + " " + node.type() + " " + value.name() + "=" + value.text() + " " +
             std::string(value.unit()) + "\n";
  EXPECT_EQ(
      "workers/a b worker requests=7 1\n"
      "workers/a b worker depth=-3 1\n"
      "workers/a b worker state=too long \n"
      "workers/a b worker http.bytes=512 bytes\n"
      "workers/a b worker http.mean=0.25 seconds\n"
      "workers/a b worker http.last=GET 1\n",
      all);
  EXPECT_EQ(512, seen.node("workers/a b").value("http.bytes").number());
  EXPECT_THROW(seen.node("workers/none"), trel::Error);
  try {
    trel::Publisher(number(key), "other");
    FAIL() << "two publishers of one key";
  } catch (const trel::Error& error) {
    EXPECT_EQ(TREL_RC_SEGMENT_EXISTS, error.trelCode());
  }
}

TEST(Layer, FollowsAPublisherThatDiesAndStartsAgain) {
  Key key;
  trel::Reader* seen = nullptr;
  for (uint64_t life = 1; life <= 5; ++life) {
    Daemon daemon(key, life);
    if (!seen)
      seen = new trel::Reader(number(key));
    else
      EXPECT_TRUE(seen->reconnect());
    EXPECT_TRUE(seen->isAlive());
    EXPECT_EQ(life, seen->node("workers/a b").value("requests").as<uint64_t>());
    daemon.child.end();
    EXPECT_EQ(TREL_PUBLISHER_DEAD, seen->publisher().state);
  }
  {
    const trel::Publisher last(number(key), "web");
    EXPECT_TRUE(seen->reconnect());
  }
  EXPECT_EQ(TREL_PUBLISHER_ENDED, seen->publisher().state);
  EXPECT_FALSE(key.exists());
  delete seen;
}

TEST(Layer, ThreadsAddAndNothingIsLost) {
  Key key;
  const trel::Publisher tree(number(key), "web");
  const auto total = tree.node("all").counter("total");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      for (int k = 0; k < 10000; ++k) total.add(1);
      tree.node("all/" + std::to_string(i)).counter("own").add(1);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(40000u, total.get());
}

// A segment that is full costs the node that did not fit, and nothing else.
TEST(Layer, AFullSegmentIsAnError) {
  Key key;
  trel::Options options;
  options.size = 1u << 17;
  const trel::Publisher tree(number(key), "web", options);
  int made = 0;
  try {
    for (;; ++made) tree.node("n" + std::to_string(made)).counter("value").add(1);
  } catch (const trel::Error& error) {
    EXPECT_STRNE("", error.what());
  }
  EXPECT_GT(made, 5);
  EXPECT_EQ(static_cast<size_t>(made), trel::Reader(number(key)).root().children().size());
}

}  // namespace
