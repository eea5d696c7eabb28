// POP3 sessions against a scripted WebDAV service; with the POP3 server as its vehicle, the frame's one client at
// a time and socket errors.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/Version.h"
#include "servers/pop3/CPop3Server.h"
#include "tests/support/FileSizeLimit.h"
#include "tests/support/ServerTestSupport.h"

namespace {

using testing_support::ListedMessage;
using testing_support::LineClient;

const std::string kHello = "+OK Tarnwick/POP3 Gateway Server - Hello\r\n";
const std::string kUnknown = "-ERR Tarnwick/POP3 Gateway Server does not understand the command: ";
const std::string kAppLine = std::string("X-Application: Tarnwick Gateway - ") + core::Version::kText + "\r\n";

// An unread message whose listed length is its size.
ListedMessage Message(const std::string& id, const std::string& body) {
    return {.id = id, .body = body, .length = std::to_string(body.size())};
}

const ListedMessage kPlain = Message("MSG-1", "From: Ann <ann@example.org>\r\nSubject: Plain\r\n\r\nHello.\r\n");
const ListedMessage kDots = Message("MSG-3", "Subject: Dots\r\n\r\n.\r\n.one\r\n..two\r\n\xE9\xFF\x80 8-bit");

class Pop3HandlersTest : public server_tests::ServerTest<servers::pop3::CPop3Server> {
protected:
    // Queues the replies of one log-in and inbox load: log-in, folder listing, inbox listing, one GET each.
    void ScriptLoad(const std::vector<ListedMessage>& messages) {
        testing_support::ScriptLogIn(svc);
        testing_support::ScriptListing(svc, messages);
    }

    std::unique_ptr<LineClient> LogIn(const std::string& password = "sam pw") {
        auto reader = std::make_unique<LineClient>(port);
        EXPECT_EQ(reader->ReceiveLine(), kHello);
        EXPECT_EQ(reader->Ask("USER sam\r\n"), "+OK send password\r\n");
        EXPECT_EQ(reader->Ask("PASS " + password + "\r\n"), "+OK send stat\r\n");
        return reader;
    }
};

// The view of one load serves every command; DELE moves the message on the service at once and changes nothing
// in the view. A move the service refuses with its error header is a deletion all the same. (Which message
// moves, and where to, shows end to end.)
TEST_F(Pop3HandlersTest, MailboxViewOfTheUnreadMessagesFromOneLoadAndDeleteMovesAtOnce) {
    ScriptLoad({kPlain, {.id = "MSG-2", .read = "1"}, kDots});
    svc.Enqueue({"moved", 207, "207 moved"});
    svc.Enqueue({"refused", 500, "500 refused"});
    svc.Enqueue({.body = "moved", .breakOff = true});
    auto reader = LogIn();
    EXPECT_TRUE(svc.Requests().empty()) << "USER and PASS must not reach the service";

    const std::string total = std::to_string(kPlain.body.size() + kDots.body.size());
    const std::string retr2 = "+OK " + kDots.length + " octets\r\n" + kAppLine +
                              "Subject: Dots\r\n\r\n..\r\n..one\r\n...two\r\n\xE9\xFF\x80 8-bit\r\n.\r\n";
    const std::string exchanges[][2] = {
        {"US", kUnknown + "US\r\n"},
        {"TOP 1 5\r\n", kUnknown + "TOP \r\n"},  // "TOP " is not the bare "TOP" entry
        {"\xE9tat\r\n", kUnknown + "\xE9TAT\r\n"},
        {"STAT 9\r\n", "+OK 2 " + total + "\r\n"},
        {"LIST\r\n",
         "+OK 2 messages (" + total + " octets)\r\n1 " + kPlain.length + "\r\n2 " + kDots.length + "\r\n.\r\n"},
        {"LIST 2.5\r\n", "+OK 2.5 " + kDots.length + "\r\n"},  // echoed as typed; rounded as numbers are
        {"LIST 3\r\n", "-ERR No such message\r\n"},
        {"LIST x\r\n", "-ERR Invalid message number\r\n"},
        {"UIDL\r\n", "+OK \r\n1 MSG-1:from-MSG-1\r\n2 MSG-3:from-MSG-3\r\n.\r\n"},
        {"uidl 2\r\n", "+OK 2 MSG-3:from-MSG-3\r\n"},
        {"RETR\r\n", "-ERR Message number required\r\n"},
        {"RETR 1\r\n", "+OK " + kPlain.length + " octets\r\n" + kAppLine + kPlain.body + "\r\n.\r\n"},
        {"RETR 2\r\n", retr2},
        {"DELE 2\r\n", "+OK msg deleted\r\n"},
        {"DELE 2\r\n", "+OK msg deleted\r\n"},
        {"STAT\r\n", "+OK 2 " + total + "\r\n"},
        {"RETR 2\r\n", retr2},
        {"DELE 1\r\n", "-ERR The connection with the server was terminated abnormally\r\n"},
        {"DELE 3\r\n", "-ERR No such message\r\n"},
        {"conn\r\n", kHello},
        {"QUIT\r\n", "+OK Tarnwick/POP3 Gateway Server - Good-Bye\r\n"},
    };
    for (const auto& [request, answer] : exchanges) {
        const bool multiLine = answer.ends_with("\r\n.\r\n");
        EXPECT_EQ(multiLine ? reader->AskMultiLine(request) : reader->Ask(request), answer) << request;
    }
    // One load (log-in, folders, inbox, a GET each), RETR from memory, one move per good DELE.
    EXPECT_EQ(svc.Requests().size(), 3u + 3 + 3);
    EXPECT_EQ(svc.Requests().back().method, "BMOVE");
    EXPECT_EQ(svc.Challenges(), 1) << "after the first exchange every request carries the credentials";
}

// The file system refuses the spool's writes (here through the file size limit, which needs no privileges):
// the reader gets an error, never the part of the message that fitted, and the next command loads again.
TEST_F(Pop3HandlersTest, ASpoolThatCannotBeWrittenFailsTheLoadAndTheReaderGetsAnError) {
    const ListedMessage big = Message("BIG", std::string(256 << 10, 'y'));
    ScriptLoad({kPlain, big});
    auto reader = LogIn();
    testing_support::FileSizeLimit limit(64 << 10);
    ASSERT_TRUE(limit.Active());
    const std::string stat = reader->Ask("STAT\r\n");
    const std::string retr = reader->Ask("RETR 2\r\n");
    ASSERT_TRUE(limit.Lift());
    EXPECT_EQ(stat, "-ERR Disk full\r\n");
    // RETR loads again (the service's next replies are not scripted yet): still no message.
    EXPECT_TRUE(retr.starts_with("-ERR ")) << retr;

    ScriptLoad({kPlain, big});
    EXPECT_EQ(reader->Ask("STAT\r\n"), "+OK 2 " + std::to_string(kPlain.body.size() + big.body.size()) + "\r\n");
    EXPECT_EQ(reader->AskMultiLine("RETR 2\r\n"),
              "+OK " + big.length + " octets\r\n" + kAppLine + big.body + "\r\n.\r\n");
}

// A wrong password fails each mailbox command, and each tries again. Listed lengths are decimal numbers, summed
// and then rounded.
TEST_F(Pop3HandlersTest, WrongPasswordFailsEveryMailboxCommandAndTriesAgainEachTime) {
    auto reader = LogIn("wrong");
    for (const char* request : {"STAT\r\n", "LIST\r\n", "UIDL 1\r\n", "RETR 1\r\n", "DELE 1\r\n"}) {
        const int before = svc.Challenges();
        const std::string answer = reader->Ask(request);
        EXPECT_TRUE(answer.starts_with("-ERR ") && answer.size() > 7) << request << answer;
        EXPECT_GT(svc.Challenges(), before) << "no new log-in for " << request;
    }
    EXPECT_TRUE(svc.Requests().empty());
    // The same connection with the right password now gets through.
    ScriptLoad({{.id = "A", .length = "10.4"}, {.id = "B", .length = "20.4"}});
    EXPECT_EQ(reader->Ask("PASS sam pw\r\n"), "+OK send stat\r\n");
    EXPECT_EQ(reader->Ask("STAT\r\n"), "+OK 2 31\r\n");
}

// One client at a time (the next one is taken once it closes: the SMTP handlers' close test). A socket error (here
// a queued text whose piece 3 cannot be read: the connection is broken off instead of the text ending early) leaves
// nothing listening until the server is started again. (That Stop closes the port shows in the desktop test.)
TEST_F(Pop3HandlersTest, OneClientAtATimeAndNothingListeningAfterASocketError) {
    struct FailingPieces : core::ITextPieces {
        bool Next(std::string& piece) override {
            if (++read == 3) core::Raise(core::ErrorNumber::kDeviceIo, "test");
            piece.assign(std::size_t{512} << 10, 'p');
            return true;
        }
        int read = 0;
    };
    LineClient client(port);
    EXPECT_EQ(client.ReceiveLine(), kHello);
    EXPECT_TRUE(LineClient(port).Refused());
    host.pop3.SendPieces(std::make_unique<FailingPieces>());
    host.pop3.SendData("END");
    ASSERT_TRUE(client.Dropped());
    const QByteArray got = client.socket.readAll();
    EXPECT_LE(got.size(), 2 * (512 << 10)) << "more than the two pieces read before the failure";
    EXPECT_FALSE(got.endsWith("END"));
    EXPECT_TRUE(WaitForLog("SOCKET_EVENT: OnError Fired"));
    EXPECT_TRUE(LineClient(port).Refused());

    server.StartServer();
    EXPECT_EQ(LineClient(port).ReceiveLine(), kHello);
    server.StopServer();  // and TearDown stops it again, which must pass silently
}

}  // namespace
