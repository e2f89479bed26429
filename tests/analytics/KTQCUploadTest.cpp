// The upload against a real HTTPS form handler on loopback: Python's
// http.server behind TLS with a certificate made for 127.0.0.1 at test time.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "KTQCTestSupport.h"
#include "SharedFiles/KTPlist.h"
#include "analytics/KTCurlTransport.h"
#include "support/ChildProcess.h"

extern char** environ;
namespace fs = std::filesystem;

namespace {

const char* kServer = R"(import http.server, os, socket, ssl, sys
cert, key, out, mode = sys.argv[1:5]
if mode == "silent":  # takes connections and never says a word
    listener = socket.create_server(("127.0.0.1", 0))
    print(listener.getsockname()[1], flush=True)
    held = []
    while True:
        held.append(listener.accept())
class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        with open(out + ".tmp", "wb") as f:
            f.write(self.headers.get("Content-Type", "").encode() + b"\n" + body)
        os.replace(out + ".tmp", out)
        self.send_response(200)
        self.send_header("Content-Length", "2")
        self.end_headers()
        self.wfile.write(b"OK")
    def log_message(self, *args):
        pass
server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(cert, key)
server.socket = context.wrap_socket(server.socket, server_side=True)
print(server.server_address[1], flush=True)
server.serve_forever()
)";

/// The form handler as a child process; it records the last request's
/// Content-Type and raw body in `recording`, one line then the bytes. A
/// silent one accepts connections and never answers.
class LoopbackHTTPSServer {
  public:
    LoopbackHTTPSServer(const std::string& dir, bool silent = false)
        : recording(dir + "/received") {
        cert = dir + "/cert.pem";
        const std::string key = dir + "/key.pem", script = dir + "/server.py";
        ScratchRoot::writeFile(script, kServer);
        ChildProcess made = ChildProcess::run(
            {"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
             "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out", cert, "-days", "1",
             "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"});
        if (made.exitCode != 0) {
            ADD_FAILURE() << "openssl: " << made.err;
            return;
        }
        int out[2];
        if (pipe(out) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::vector<std::string> argv{"/usr/bin/python3",        script, cert, key, recording,
                                      silent ? "silent" : "http"};
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        // Wait (at most 20 s, for a loaded machine) for the port it printed.
        std::string line;
        pollfd fd{out[0], POLLIN, 0};
        char c = 0;
        while (pid > 0 && line.find('\n') == std::string::npos && poll(&fd, 1, 20000) > 0 &&
               read(out[0], &c, 1) == 1)
            line += c;
        close(out[0]);
        port = std::atoi(line.c_str());
        if (port <= 0) ADD_FAILURE() << "the HTTPS server did not start";
    }
    ~LoopbackHTTPSServer() {
        if (pid <= 0) return;
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    std::string url() const { return "https://127.0.0.1:" + std::to_string(port) + "/qc.php"; }

    std::string cert, recording;
    pid_t pid = -1;
    int port = 0;
};

/// A loopback port nobody listens on.
int closedPort() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    close(s);
    return ntohs(a.sin_port);
}

class KTQCUploadTest : public KTQCTestBase {
  protected:
    void SetUp() override {
        KTQCTestBase::SetUp();
        qcPrefs().setBool("logQC", true);
        prefs().setInteger("launchCount", 3);  // this launch is the fourth: an upload is due
    }
    /// One launch that uploads through libcurl, run until the post has ended.
    void launchAndUpload() {
        auto qc = std::make_unique<KTQC>(KTQC::Services{curl, clock});
        RecordingQuestion window;
        qc->loadQC(window);
        qc->waitUntilIdle();
        curl->waitUntilFinished();
    }
    std::shared_ptr<KTCurlTransport> curl = std::make_shared<KTCurlTransport>();
};

}  // namespace

TEST_F(KTQCUploadTest, BodyArrivesAsTheFormHandlerReadsIt) {
    LoopbackHTTPSServer server(scratch.base());
    ASSERT_GT(server.port, 0);
    configure(server.url());
    prefs().setString("qcCAFile", server.cert);
    launchAndUpload();

    const std::string received = ScratchRoot::readFile(server.recording);
    const auto newline = received.find('\n');
    ASSERT_NE(newline, std::string::npos) << "nothing arrived";
    const std::string type = received.substr(0, newline), body = received.substr(newline + 1);
    const std::string prefix = "multipart/form-data; boundary=";
    ASSERT_EQ(type.compare(0, prefix.size(), prefix), 0) << type;
    const std::string boundary = type.substr(prefix.size());
    EXPECT_EQ(boundary.size(), 36u);
    const std::string uid = qcPrefs().stringForKey("uid").value_or("");
    ASSERT_EQ(uid.size(), 12u);

    const std::string sep = "--" + boundary + "\r\nContent-Disposition: form-data; name=";
    EXPECT_EQ(body, sep + "\"uid\"\r\n\r\n" + uid + "\r\n" +                     //
                        sep + "\"app\"\r\n\r\ncom.quellbrook.Ambrel\r\n" +       //
                        sep + "\"version\"\r\n\r\n" + AMBREL_VERSION + "\r\n" +  //
                        sep +
                        "\"events\"\r\n\r\n[{\"event\":\"launch\",\"date\":1700000000},"
                        "{\"event\":\"specs\",\"date\":1700000000,"
                        "\"data\":\"Debian GNU/Linux 12 (bookworm)\"}]\r\n");

    EXPECT_FALSE(fs::exists(cacheFile()));
    EXPECT_EQ(KTPlist::dateValue(prefs().plistForKey("lastSubmission").get()), 1700000000);
    EXPECT_EQ(logText().find("Connection failed"), std::string::npos);
}

TEST_F(KTQCUploadTest, AFailedOrImpossiblePostStillEmptiesTheCache) {
    const std::string refused = "https://127.0.0.1:" + std::to_string(closedPort()) + "/qc.php";
    configure(refused);
    launchAndUpload();
    EXPECT_FALSE(fs::exists(cacheFile()));
    EXPECT_NE(logText().find("Connection failed - "), std::string::npos);

    // Plain HTTP is never used: no connection at all, and the events still go.
    configure("http://127.0.0.1:" + std::to_string(closedPort()) + "/qc.php");
    clock->time += 2 * 86400;
    launchAndUpload();
    EXPECT_FALSE(fs::exists(cacheFile()));
    EXPECT_EQ(KTPlist::dateValue(prefs().plistForKey("lastSubmission").get()),
              static_cast<long long>(clock->time));
    EXPECT_NE(logText().find("Failed to establish a connection. Please try again later."),
              std::string::npos);

    // Nothing is sent twice: the next launch posts only its own launch.
    auto qc = std::make_unique<KTQC>(KTQC::Services{transport, clock});
    EXPECT_TRUE(qc->cache().empty());
}

TEST_F(KTQCUploadTest, QuittingEndsAPostTheServerNeverAnswers) {
    LoopbackHTTPSServer server(scratch.base(), true);
    ASSERT_GT(server.port, 0);
    configure(server.url());
    auto qc = std::make_unique<KTQC>(KTQC::Services{curl, clock});
    RecordingQuestion window;
    qc->loadQC(window);
    qc->waitUntilIdle();
    qc->willTerminate();  // would wait out the connection's time-out if the post were not ended
    EXPECT_NE(logText().find("Connection failed - Callback aborted"), std::string::npos);
    EXPECT_FALSE(fs::exists(cacheFile()));
}
