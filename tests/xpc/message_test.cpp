// Messages between two ends in this process: values, replies, order, limits.
#include <atomic>
#include <memory>
#include <vector>

#include "link.h"

namespace {

constexpr char kName[] = "echo";

class MessageTest : public testing::Test {
 protected:
  TemporaryFolder folder_;
};

TEST_F(MessageTest, TextIsMadeUtf8) {
  Connection service(listener(kName), acceptingEcho());
  Connection connection(client(kName));
  EXPECT_EQ(textsOf(connection.ask(message("a", "G\xc3\xa4ste \xff"))), (Texts{{"a", "Gäste \uFFFD"}}));
}

TEST_F(MessageTest, AValueOutlivesItsMessage) {
  Connection service(listener(kName), acceptingEcho());
  Connection connection(client(kName));
  const std::string text(100, 'x');
  const std::string longText(5000, 'y');
  Object kept;
  {
    Object outer(xpc_dictionary_create_empty());
    xpc_dictionary_set_value(outer, "inner", message({{"short", "s"}, {"text", text}}));
    const Object reply = connection.ask(outer);
    kept = Object(xpc_retain(xpc_dictionary_get_value(reply, "inner")));
  }
  for (const char* key : {"more", "more", "and more"}) xpc_dictionary_set_string(kept, key, longText.c_str());
  EXPECT_EQ(textsOf(kept),
            (Texts{{"short", "s"}, {"text", text}, {"more", longText}, {"and more", longText}}));
}

TEST_F(MessageTest, RepliesComeOnceOnTheirQueueOrAsAnError) {
  Events received;
  Events peers;
  Connection service(listener(kName), accepting([&](xpc_connection_t peer) {
                       peers.put(peer);
                       xpc_connection_set_event_handler(peer, received.handler());
                     }));
  Connection connection(client(kName), nullptr, false);
  Events replies;
  dispatch_queue_t queue = dispatch_queue_create("replies", nullptr);
  const auto ask = [&] {
    xpc_connection_send_message_with_reply(
        connection, message("a", "question"), queue, [&](xpc_object_t reply) {
          EXPECT_STREQ(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL), "replies");
          replies.put(reply);
        });
  };
  ask();  // goes out with the activation
  xpc_connection_activate(connection);
  Object question = received.next();
  ASSERT_TRUE(question);
  EXPECT_EQ(xpc_connection_get_pid(xpc_dictionary_get_remote_connection(question)), getpid());
  const Object answer(xpc_dictionary_create_reply(question));
  ASSERT_TRUE(answer);
  EXPECT_FALSE(xpc_dictionary_create_reply(question));
  EXPECT_FALSE(xpc_dictionary_create_reply(answer));
  for (int i = 0; i < 2; i++)  // the second is dropped
    xpc_connection_send_message(xpc_dictionary_get_remote_connection(question), answer);
  EXPECT_EQ(xpc_get_type(replies.next()), XPC_TYPE_DICTIONARY);

  xpc_connection_send_message(connection, message("a", "statement"));
  EXPECT_FALSE(xpc_dictionary_create_reply(received.next()));

  // What cannot be sent is answered at once and does no harm.
  Object oversized(xpc_dictionary_create_empty());
  xpc_dictionary_set_data(oversized, "data", nullptr, 9 << 20);
  EXPECT_EQ(connection.ask(oversized), XPC_ERROR_CONNECTION_INVALID);

  // The service hangs up: the client's questions fail, and the next one connects anew.
  for (int i = 0; i < 2; i++) ask();
  ASSERT_TRUE(received.next() && received.next());
  xpc_connection_cancel(asConnection(peers.next()));
  EXPECT_EQ(received.next(), XPC_ERROR_CONNECTION_INVALID);
  for (int i = 0; i < 2; i++) EXPECT_EQ(replies.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  EXPECT_EQ(connection.events.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  ask();
  ASSERT_EQ(xpc_get_type(received.next()), XPC_TYPE_DICTIONARY);

  // The client hangs up.
  xpc_connection_cancel(connection);
  EXPECT_EQ(replies.next(), XPC_ERROR_CONNECTION_INVALID);
  EXPECT_EQ(connection.events.next(), XPC_ERROR_CONNECTION_INVALID);
  EXPECT_EQ(received.next(), XPC_ERROR_CONNECTION_INVALID);
  ask();
  EXPECT_EQ(replies.next(), XPC_ERROR_CONNECTION_INVALID);
  EXPECT_EQ(replies.count(), 0u);
  dispatch_release(queue);
}

TEST_F(MessageTest, EventsComeOneAtATimeAndInOrderOnAConcurrentQueue) {
  constexpr int kCount = 2000;
  const std::string large(100'000, 'x');
  Events handled;
  static std::atomic<int> inside;  // outlives the last event's handler
  dispatch_queue_t queue = dispatch_queue_create("events", DISPATCH_QUEUE_CONCURRENT);
  Connection service(listener(kName), accepting([&](xpc_connection_t peer) {
                       xpc_connection_set_target_queue(peer, queue);
                       xpc_connection_set_event_handler(peer, [&](xpc_object_t event) {
                         EXPECT_EQ(inside++, 0);
                         handled.put(event);
                         inside--;
                       });
                     }));
  {
    Connection connection(client(kName));
    for (int i = 0; i < kCount; i++) {
      Object numbered(xpc_dictionary_create_empty());
      xpc_dictionary_set_int64(numbered, "n", i);
      if (i % 100 == 50) xpc_dictionary_set_data(numbered, "large", large.data(), large.size());
      xpc_connection_send_message(connection, numbered);
    }
    for (int i = 0; i < kCount; i++) ASSERT_EQ(xpc_dictionary_get_int64(handled.next(), "n"), i);
  }
  EXPECT_EQ(handled.next(), XPC_ERROR_CONNECTION_INVALID);
  dispatch_release(queue);
}

// Neither a handler that waits for a reply on its own connection nor many that never return keep others from
// being served.
TEST_F(MessageTest, HandlersMayWait) {
  Connection service(listener(kName), acceptingEcho());
  Events replies;
  Events release;
  std::vector<std::unique_ptr<Connection>> stuck;
  for (int i = 0; i < 8; i++) stuck.push_back(std::make_unique<Connection>(client(kName)));
  for (auto& connection : stuck) {
    xpc_connection_send_message_with_reply(*connection, message("a", "b"), nullptr, [&](xpc_object_t) {
      replies.put(stuck.front()->ask(message("inner", "question")));
      replies.put(release.next());
    });
  }
  for (int i = 0; i < 8; i++) EXPECT_STREQ(xpc_dictionary_get_string(replies.next(), "inner"), "question");
  for (int i = 0; i < 8; i++) release.put(XPC_ERROR_CONNECTION_INVALID);
  for (int i = 0; i < 8; i++) EXPECT_EQ(replies.next(), XPC_ERROR_CONNECTION_INVALID);
}

TEST_F(MessageTest, APeerThatDoesNotReadIsDisconnectedAndAnotherServed) {
  // Kept by the handlers, since the client below may connect once more than is waited for.
  const auto peers = std::make_shared<Events>();
  const auto gone = std::make_shared<Events>();
  Connection service(listener(kName), accepting([peers, gone](xpc_connection_t peer) {
                       xpc_connection_set_event_handler(peer, [gone](xpc_object_t event) {
                         echo(event);
                         if (xpc_get_type(event) == XPC_TYPE_ERROR) gone->put(event);
                       });
                       peers->put(peer);
                     }));
  int deaf = -1;
  ASSERT_TRUE(eventually([&] { return (deaf = bareClient(folder_ / kName)) >= 0; }));
  const Object deafPeer = peers->next();
  ASSERT_TRUE(deafPeer);
  Connection other(client(kName));

  Object sound(xpc_dictionary_create_empty());
  xpc_dictionary_set_data(sound, "sound", nullptr, 3840);
  for (int i = 0; i < 4000; i++) {
    xpc_connection_send_message(asConnection(deafPeer), sound);
    if (i % 200 == 0) {
      EXPECT_EQ(xpc_get_type(other.ask(sound)), XPC_TYPE_DICTIONARY);
    }
  }
  EXPECT_EQ(gone->next(), XPC_ERROR_CONNECTION_INVALID);
  close(deaf);

  // A handler that does not get on makes its own side stop reading, so that it is the sender that gives up.
  const Object otherPeer = peers->next();
  auto* stuck = asConnection(otherPeer);
  xpc_connection_suspend(stuck);
  for (int i = 0; i < 10'000 && other.events.count() == 0; i++) xpc_connection_send_message(other, sound);
  EXPECT_EQ(other.events.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  xpc_connection_resume(stuck);
  EXPECT_EQ(gone->next(), XPC_ERROR_CONNECTION_INVALID);
}

TEST_F(MessageTest, AClientWithoutAServiceIsTold) {
  for (const char* name : {"nobody", "no/name", ""}) {
    Connection connection(client(name));
    EXPECT_EQ(connection.ask(message("a", "b")), XPC_ERROR_CONNECTION_INVALID);
    EXPECT_EQ(connection.events.next(), XPC_ERROR_CONNECTION_INVALID);
  }
}

}  // namespace
