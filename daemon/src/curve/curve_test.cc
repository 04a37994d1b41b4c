#include "daemon/src/curve/curve.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "tests/support/test_support.h"
#include "util/czmq.h"

namespace {

using std::chrono::milliseconds;
using vorn::curve::certificate;
using namespace vorn::test;

certificate make_certificate(const TempDir& dir, const std::string& name, bool secret = true) {
  std::string error;
  EXPECT_TRUE(vorn::curve::write_new_certificate(dir.path(), name, name, &error)) << error;
  certificate cert;
  std::string path = dir / (name + (secret ? ".cert_secret" : ".cert"));
  EXPECT_TRUE(vorn::curve::load_certificate(path, secret, &cert, &error)) << error;
  return cert;
}

TEST(CurveCertificateTest, LoadCertificate) {
  TempDir dir;
  std::string error;
  ASSERT_TRUE(vorn::curve::write_new_certificate(dir.path(), "node1", "node1", &error)) << error;
  write_file(dir / "notes.txt", "hello = world\n");
  struct stat status;
  ASSERT_EQ(stat((dir / "node1.cert_secret").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  struct Row {
    std::string file;
    bool need_secret;
    std::string reason;  // empty: loads
  } rows[] = {
      {"node1.cert_secret", true, ""},
      // The public file alone counts, though its _secret sits beside it.
      {"node1.cert", false, ""},
      {"missing.cert", false, "cannot open (2): No such file or directory"},
      {"notes.txt", false, "not a certificate (no valid curve public-key)"},
      {"node1.cert", true,
       "holds no secret key (a public certificate where the _secret one is needed)"},
      {"", false, "not a regular file"},  // the directory itself
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.file);
    const std::string path = dir / row.file;
    certificate cert;
    error.clear();
    bool loaded = vorn::curve::load_certificate(path, row.need_secret, &cert, &error);
    if (row.reason.empty()) {
      EXPECT_TRUE(loaded) << error;
      EXPECT_EQ(cert.hostname, "node1");
      EXPECT_EQ(cert.public_key.size(), 40u);
      EXPECT_EQ(cert.secret_key.size(), row.need_secret ? 40u : 0u);
    } else {
      EXPECT_FALSE(loaded);
      EXPECT_EQ(error, "Cannot use CURVE certificate '" + path + "': " + row.reason);
    }
  }
}

TEST(CurveCertificateTest, WriteRefusesUnsafeNamesAndOverwriting) {
  TempDir dir;
  std::string error;
  ASSERT_TRUE(vorn::curve::write_new_certificate(dir.path(), "a", "*", &error)) << error;
  const std::string before = read_file(dir / "a.cert_secret");
  for (const std::string name : {"a", "", ".hidden", "../a", "x/y"}) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(vorn::curve::write_new_certificate(dir.path(), name, "*", &error));
  }
  EXPECT_EQ(read_file(dir / "a.cert_secret"), before);
  EXPECT_FALSE(std::ifstream(dir / ".hidden.cert_secret").good());
}

TEST(CurveCertificateTest, MaySendFor) {
  EXPECT_TRUE(vorn::curve::may_send_for("n1", "n1"));
  EXPECT_TRUE(vorn::curve::may_send_for("*", "n2"));    // a relay
  EXPECT_FALSE(vorn::curve::may_send_for("n1", "n2"));  // another host's results
  EXPECT_FALSE(vorn::curve::may_send_for("", ""));      // no hostname metadata
}

TEST(CurveKeyDirectoryTest, SeesRemovedAndAddedFilesWithinTwoSeconds) {
  TempDir keys;
  TempDir elsewhere;
  certificate node1 = make_certificate(keys, "node1", false);
  certificate node2 = make_certificate(elsewhere, "node2", false);
  vorn::curve::key_directory directory(keys.path());
  EXPECT_EQ(directory.lookup(node1.public_key), "node1");
  EXPECT_EQ(directory.lookup(node2.public_key), std::nullopt);

  ASSERT_EQ(unlink((keys / "node1.cert").c_str()), 0);
  EXPECT_TRUE(wait_until([&] { return !directory.lookup(node1.public_key).has_value(); },
                         milliseconds(2000)));
  write_file(keys / "node2.cert", read_file(elsewhere / "node2.cert"));
  EXPECT_TRUE(wait_until([&] { return directory.lookup(node2.public_key) == "node2"; },
                         milliseconds(2000)));
}

// A client of the given kind connected to `endpoint`, with one message queued.
vorn::czmq::Socket connected_client(const std::string& endpoint, const certificate* own,
                                    const certificate& server, const char* text) {
  vorn::czmq::Socket client(zsock_new(ZMQ_PUSH));
  if (own) {
    vorn::curve::make_client(client.get(), *own, server.public_key);
  }
  EXPECT_EQ(zsock_connect(client.get(), "%s", endpoint.c_str()), 0);
  zsock_set_sndtimeo(client.get(), 0);
  EXPECT_EQ(zstr_send(client.get(), text), 0);
  return client;
}

TEST(CurveZapHandlerTest, OnlyListedKeysDeliverWithTheirHostname) {
  TempDir keys;
  TempDir elsewhere;
  certificate server = make_certificate(elsewhere, "server");
  certificate listed = make_certificate(keys, "node1");
  certificate unlisted = make_certificate(elsewhere, "node2");
  ASSERT_EQ(unlink((keys / "node1.cert_secret").c_str()), 0);

  testing::internal::CaptureStderr();
  {
    vorn::curve::key_directory directory(keys.path());
    vorn::curve::zap_handler zap(vorn::curve::listed_with_hostname(directory), "results");
    ASSERT_TRUE(zap.ok());
    vorn::czmq::Socket receiver(zsock_new(ZMQ_PULL));
    vorn::curve::make_server(receiver.get(), server);
    ASSERT_GT(zsock_bind(receiver.get(), "tcp://127.0.0.1:*"), 0);
    const std::string endpoint = vorn::czmq::last_endpoint(receiver.get());

    vorn::czmq::Socket plain = connected_client(endpoint, nullptr, server, "plain");
    vorn::czmq::Socket stranger = connected_client(endpoint, &unlisted, server, "stranger");
    EXPECT_TRUE(wait_until([&] { return zap.refused() >= 1; }, milliseconds(5000)));
    vorn::czmq::Socket friendly = connected_client(endpoint, &listed, server, "friend");

    zsock_set_rcvtimeo(receiver.get(), 5000);
    vorn::czmq::Frame frame(zframe_recv(receiver.get()));
    ASSERT_TRUE(frame);
    EXPECT_TRUE(zframe_streq(frame.get(), "friend"));
    const char* user_id = zframe_meta(frame.get(), "User-Id");
    const char* hostname = zframe_meta(frame.get(), "hostname");
    EXPECT_EQ(std::string(user_id ? user_id : ""), listed.public_key);
    EXPECT_EQ(std::string(hostname ? hostname : ""), "node1");
    // Whatever the refused peers queued never arrives.
    zsock_set_rcvtimeo(receiver.get(), 500);
    vorn::czmq::Frame other(zframe_recv(receiver.get()));
    EXPECT_FALSE(other);
  }
  const std::string log = testing::internal::GetCapturedStderr();
  const std::string warning = "Refused 1 peer(s) on results in the handshake";
  EXPECT_NE(log.find(warning), std::string::npos) << log;
  EXPECT_EQ(log.find("Refused", log.find(warning) + 1), std::string::npos) << log;  // one line
  EXPECT_NE(log.find("from 127.0.0.1 (key " + unlisted.public_key), std::string::npos) << log;
}

}  // namespace
