// The upload through libcurl against a real HTTPS form handler on loopback:
// Python's http.server behind TLS, with a certificate for 127.0.0.1 made at
// test time.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "KTQCTestSupport.h"
#include "SharedFiles/KTPlist.h"
#include "analytics/KTCurlTransport.h"
#include "support/ChildProcess.h"

namespace fs = std::filesystem;

namespace {

// Serves one connection, then ends: "http" records the request's
// Content-Type and raw body in DIR/received; "silent" never answers.
const char* kServer = R"(import http.server, socket, ssl, sys
folder, mode = sys.argv[1:3]
if mode == "silent":
    listener = socket.create_server(("127.0.0.1", 0))
    listener.settimeout(20)
    print(listener.getsockname()[1], flush=True)
    connection = listener.accept()[0]
    while connection.recv(4096):
        pass
    sys.exit()
class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        with open(folder + "/received", "wb") as f:
            f.write(self.headers["Content-Type"].encode() + b"\n" + body)
        self.send_response(200)
        self.end_headers()
server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(folder + "/cert.pem", folder + "/key.pem")
server.socket = context.wrap_socket(server.socket, server_side=True)
server.timeout = 20
print(server.server_address[1], flush=True)
server.handle_request()
)";

/// The form handler as a child process; waits for it to end when it goes.
class LoopbackServer {
  public:
    LoopbackServer(const std::string& folder, const char* mode) {
        ScratchRoot::writeFile(folder + "/server.py", kServer);
        ChildProcess cert =
            ChildProcess::run({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                               "ec_paramgen_curve:prime256v1", "-nodes", "-keyout",
                               folder + "/key.pem", "-out", folder + "/cert.pem", "-days", "1",
                               "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"});
        if (cert.exitCode != 0) {
            ADD_FAILURE() << cert.err;
            return;
        }
        pipe_ = popen(
            ("exec /usr/bin/python3 " + folder + "/server.py " + folder + " " + mode).c_str(), "r");
        char line[32] = {};
        if (pipe_ && fgets(line, sizeof line, pipe_)) port = std::atoi(line);
    }
    ~LoopbackServer() {
        if (pipe_) pclose(pipe_);
    }
    std::string url() const { return "https://127.0.0.1:" + std::to_string(port) + "/qc.php"; }
    int port = 0;

  private:
    FILE* pipe_ = nullptr;
};

class KTQCUploadTest : public KTQCTestBase {
  protected:
    void SetUp() override {
        KTQCTestBase::SetUp();
        qcPrefs().setBool("logQC", true);
        prefs().setInteger("launchCount", 3);  // the fourth launch, never submitted: upload
        prefs().setString("qcCAFile", scratch.base() + "/cert.pem");
    }
    /// A launch whose upload goes through libcurl, until the post has ended.
    void launchAndUpload() {
        auto qc = launch(curl);
        RecordingQuestion window;
        qc->loadQC(window);
        qc->waitUntilIdle();
        curl->waitUntilFinished();
    }
    std::shared_ptr<KTCurlTransport> curl = std::make_shared<KTCurlTransport>();
};

}  // namespace

TEST_F(KTQCUploadTest, BodyArrivesAsTheFormHandlerReadsIt) {
    LoopbackServer server(scratch.base(), "http");
    ASSERT_GT(server.port, 0);
    configure(server.url());
    launchAndUpload();

    const std::string received = ScratchRoot::readFile(scratch.base() + "/received");
    const std::string prefix = "multipart/form-data; boundary=";
    ASSERT_EQ(received.compare(0, prefix.size(), prefix), 0) << received;
    const std::string boundary = received.substr(prefix.size(), 36);
    const std::string uid = qcPrefs().stringForKey("uid").value_or("");
    const std::string part = "--" + boundary + "\r\nContent-Disposition: form-data; name=";
    EXPECT_EQ(received.substr(prefix.size() + 36),
              "\n" + part + "\"uid\"\r\n\r\n" + uid + "\r\n" + part +
                  "\"app\"\r\n\r\ncom.quellbrook.Ambrel\r\n" + part + "\"version\"\r\n\r\n" +
                  AMBREL_VERSION + "\r\n" + part +
                  "\"events\"\r\n\r\n[{\"event\":\"launch\",\"date\":1700000000},"
                  "{\"event\":\"specs\",\"date\":1700000000,"
                  "\"data\":\"Debian GNU/Linux 12 (bookworm)\"}]\r\n");
    EXPECT_EQ(uid.size(), 12u);
    EXPECT_FALSE(fs::exists(cacheFile()));
}

TEST_F(KTQCUploadTest, AFailedOrImpossiblePostStillEmptiesTheCache) {
    configure("https://127.0.0.1:1/qc.php");  // nobody listens on port 1
    launchAndUpload();
    EXPECT_FALSE(fs::exists(cacheFile()));
    EXPECT_NE(logText().find("Connection failed - "), std::string::npos);

    // Plain HTTP is never used: no connection at all, and the events go all the same.
    configure("http://127.0.0.1:1/qc.php");
    clock->time += 2 * 86400;
    launchAndUpload();
    EXPECT_FALSE(fs::exists(cacheFile()));
    EXPECT_EQ(KTPlist::dateValue(prefs().plistForKey("lastSubmission").get()), clock->time);
    EXPECT_NE(logText().find("Failed to establish a connection. Please try again later."),
              std::string::npos);
    EXPECT_TRUE(launch()->cache().empty());
}

TEST_F(KTQCUploadTest, QuittingEndsAPostTheServerNeverAnswers) {
    LoopbackServer server(scratch.base(), "silent");
    ASSERT_GT(server.port, 0);
    configure(server.url());
    auto qc = launch(curl);
    RecordingQuestion window;
    qc->loadQC(window);
    qc->waitUntilIdle();
    qc->willTerminate();  // without ending the post, this waits out its time-out
    EXPECT_NE(logText().find("Connection failed - Callback aborted"), std::string::npos);
}
