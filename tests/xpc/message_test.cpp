// Messages between two ends in this process: values, replies, order, limits.
#include <glib.h>
#include <sys/mman.h>
#include <xpc/Body.h>

#include <atomic>
#include <memory>
#include <vector>

#include "link.h"

namespace xpc = platform::xpc;

namespace {

constexpr char kName[] = "echo";

class MessageTest : public testing::Test {
 protected:
  TemporaryFolder m_folder;
};

TEST_F(MessageTest, EveryTypeComesBackAsItWent) {
  Connection service(listener(kName), acceptingEcho());
  Connection connection(client(kName));
  const Object all(xpc_dictionary_create_empty());
  xpc_dictionary_set_bool(all, "bool", true);
  xpc_dictionary_set_int64(all, "int64", INT64_MIN);
  xpc_dictionary_set_uint64(all, "uint64", UINT64_MAX);
  xpc_dictionary_set_double(all, "double", -0.25);
  xpc_dictionary_set_string(all, "string", "G\xc3\xa4ste \xf0\x9f\x8e\xa5");
  xpc_dictionary_set_string(all, "not UTF-8", "a\xff");
  xpc_dictionary_set_data(all, "nothing", nullptr, 0);
  const Object array(xpc_array_create(nullptr, 0));
  xpc_array_append_value(array, Object(xpc_int64_create(7)));
  xpc_array_append_value(array, Object(xpc_string_create("")));
  const Object nested(xpc_dictionary_create_empty());
  xpc_dictionary_set_value(nested, "array", array);
  xpc_dictionary_set_value(all, "nested", nested);
  xpc_dictionary_set_value(all, "empty", Object(xpc_dictionary_create_empty()));
  const Object reply = connection.ask(all);
  EXPECT_EQ(describe(reply), describe(all));
  EXPECT_STREQ(xpc_dictionary_get_string(reply, "not UTF-8"), "a\xef\xbf\xbd");

  const int file = memfd_create("file", MFD_CLOEXEC);
  ASSERT_EQ(write(file, "inside", 6), 6);
  for (const size_t length : {size_t{3840}, size_t{70'000}, size_t{3'000'000}}) {
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; i++) bytes[i] = static_cast<uint8_t>(i * 7);
    const Object sent(xpc_dictionary_create_empty());
    xpc_dictionary_set_data(sent, "data", bytes.data(), length);
    xpc_dictionary_set_fd(sent, "file", file);
    const Object got = connection.ask(sent);
    size_t received = 0;
    const void* data = xpc_dictionary_get_data(got, "data", &received);
    ASSERT_EQ(received, length);
    EXPECT_EQ(memcmp(data, bytes.data(), length), 0);
    const int copy = xpc_dictionary_dup_fd(got, "file");
    char inside[7] = {};
    EXPECT_EQ(pread(copy, inside, 6, 0), 6);
    EXPECT_STREQ(inside, "inside");
    close(copy);
  }
  close(file);
}

// GLib is the judge of what is written, and writes what must be read.
TEST(Body, IsWhatGLibTakesAndMakes) {
  const std::string texts[] = {
      "@a{sv} {}",
      "{'name': <'Guest - A'>, 'num': <int64 -5>, 'time': <uint64 9>, 'on': <true>, 'rate': <0.5>}",
      "{'sound': <@ay [0x01, 0x00, 0xff]>, 'none': <@ay []>, 'nested': <{'x': <@av [<'y'>, <@a{sv} {}>]>}>}",
      "{'long': <'" + std::string(250, 'a') + "'>, 'longer': <'" + std::string(60'000, 'b') + "'>}",
      "{'longest': <{'" + std::string(300, 'k') + "': <'" + std::string(70'000, 'c') + "'>}>}",
  };
  for (const std::string& text : texts) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) parsed =
        g_variant_parse(G_VARIANT_TYPE_VARDICT, text.c_str(), nullptr, nullptr, &error);
    ASSERT_TRUE(parsed) << error->message;
    const auto* data = static_cast<const uint8_t*>(g_variant_get_data(parsed));
    const char* problem = nullptr;
    const auto dictionary = xpc::readBody({data, g_variant_get_size(parsed)}, {}, problem);
    ASSERT_TRUE(dictionary) << problem << text.substr(0, 200);

    xpc::Bytes written;
    std::vector<xpc::Ref<xpc::Descriptor>> descriptors;
    ASSERT_EQ(xpc::writeBody(*dictionary, written, descriptors), nullptr);
    EXPECT_EQ(written, xpc::Bytes(data, data + g_variant_get_size(parsed))) << text.substr(0, 200);
  }
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
  EXPECT_EQ(describe(replies.next()), describe(Object(xpc_dictionary_create_empty())));

  xpc_connection_send_message(connection, message("a", "statement"));
  EXPECT_FALSE(xpc_dictionary_create_reply(received.next()));

  // What cannot be sent is answered at once and does no harm.
  Object oversized(xpc_dictionary_create_empty());
  xpc_dictionary_set_data(oversized, "data", nullptr, 9 << 20);
  EXPECT_EQ(connection.ask(oversized), XPC_ERROR_CONNECTION_INVALID);

  // The service hangs up: the client's question fails, and the next one connects anew.
  ask();
  ask();
  ASSERT_TRUE(received.next() && received.next());
  xpc_connection_cancel(asConnection(peers.next()));
  EXPECT_EQ(received.next(), XPC_ERROR_CONNECTION_INVALID);
  EXPECT_EQ(replies.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  EXPECT_EQ(replies.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
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
  Events done;
  std::atomic<int> inside{0};
  std::atomic<int> next{0};
  dispatch_queue_t queue = dispatch_queue_create("events", DISPATCH_QUEUE_CONCURRENT);
  const auto handle = [&](xpc_object_t event) {
    EXPECT_EQ(inside.fetch_add(1), 0);
    if (xpc_get_type(event) == XPC_TYPE_DICTIONARY) {
      EXPECT_EQ(xpc_dictionary_get_int64(event, "n"), next++);
    }
    inside--;
    done.put(event);
  };
  Connection service(listener(kName), accepting([&](xpc_connection_t peer) {
                       xpc_connection_set_target_queue(peer, queue);
                       xpc_connection_set_event_handler(peer, handle);
                     }));
  {
    Connection connection(client(kName));
    for (int i = 0; i < kCount; i++) {
      Object numbered(xpc_dictionary_create_empty());
      xpc_dictionary_set_int64(numbered, "n", i);
      xpc_connection_send_message(connection, numbered);
    }
    Events barrier;
    xpc_connection_send_barrier(connection, [&] { barrier.put(XPC_ERROR_CONNECTION_INVALID); });
    EXPECT_TRUE(barrier.next());
    for (int i = 0; i < kCount; i++) ASSERT_TRUE(done.next());
  }
  EXPECT_EQ(next, kCount);
  EXPECT_EQ(done.next(), XPC_ERROR_CONNECTION_INVALID);
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
  ASSERT_TRUE(eventually([&] { return (deaf = bareClient(m_folder / kName)) >= 0; }));
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
    const Object event = connection.events.next();
    EXPECT_EQ(event, XPC_ERROR_CONNECTION_INVALID);
    EXPECT_STREQ(xpc_dictionary_get_string(event, XPC_ERROR_KEY_DESCRIPTION), "Connection invalid");
  }
}

}  // namespace
