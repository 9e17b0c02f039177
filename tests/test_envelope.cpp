/* The message envelope, the record framing of the line channel and what
 * the endpoint's receive() makes of the bytes on a real pipe. */
#include <gtest/gtest.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include "exec_proto.h"

namespace {

struct EnvelopeDeleter {
    void operator()(JXDR* x) const { jxdr_destroy(x); }
};
typedef std::unique_ptr<JXDR, EnvelopeDeleter> Envelope;

Envelope parse(const std::string& text)
{
    return Envelope(jxdr_create((char*)text.c_str()));
}

const std::string kRequest =
    "{\"ver\": 1, \"type\": 1, \"seq\": 3, \"fn\": 2, \"status\": 5, \"param\": {\"id\": 1}}";

/* receive() results up to the first end of input or empty read, for bytes
 * written into a pipe by another thread (a line may not fit in the pipe).
 * writer_stays: the write end stays open and reads do not wait. */
std::vector<int> receive_all(const std::string& bytes, bool writer_stays = false)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    if (writer_stays)
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
    std::thread writer([&] {
        for (size_t off = 0; off < bytes.size();) {
            ssize_t w = write(fds[1], bytes.data() + off, bytes.size() - off);
            if (w <= 0)
                break;
            off += (size_t)w;
        }
        if (!writer_stays)
            close(fds[1]);
    });
    FILE* in = fdopen(fds[0], "r");
    STDIOChannel ch(in, stdout);
    ExecProto ep(&ch);
    std::vector<int> rcs;
    for (int rc = 0; (rc == 0 || rc == -5) && rcs.size() < 10;) {
        JXDR* x = nullptr;
        rcs.push_back(rc = ep.receive(x));
        EXPECT_EQ(rc == 0, x != nullptr);
        jxdr_destroy(x);
    }
    writer.join();
    fclose(in);
    if (writer_stays)
        close(fds[1]);
    return rcs;
}

} // namespace

TEST(Arena, CarvesBackToBackFromOneBlockUntilExhausted)
{
    Envelope x(jxdr_create(nullptr));
    EXPECT_EQ(jxdr_param_alloc(x.get(), 262145), nullptr) << "more than one block";
    char* a = jxdr_param_alloc(x.get(), 10);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(jxdr_param_alloc(x.get(), 20), a + 10) << "no alignment";
    EXPECT_EQ(std::string(a, 30), std::string(30, '\0'));
    EXPECT_EQ(jxdr_param_alloc(x.get(), 262144 - 29), nullptr);
    EXPECT_EQ(jxdr_param_alloc(x.get(), 262144 - 30), a + 30) << "exactly what is left";
    EXPECT_EQ(jxdr_param_alloc(x.get(), 1), nullptr);
    EXPECT_EQ(jxdr_param_alloc(x.get(), -1), nullptr);
}

TEST(Envelope, RejectsTextsWithoutIntegerHeader)
{
    const char* rejected[] = {
        "{\"ver\": \"1\", \"type\": 1, \"seq\": 3, \"fn\": 1, \"status\": 0}",
        "{\"ver\": 1, \"type\": 1, \"seq\": 3.5, \"fn\": 1, \"status\": 0}",
        "{\"ver\": 1, \"type\": 1, \"seq\": 3, \"fn\": 1}",
        "[1, 1, 3, 1, 0]",
        "ver=1 type=1",
        "",
    };
    for (const char* text : rejected) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(parse(text));
    }
    Envelope x = parse("{\"ver\": 7, \"type\": 1, \"seq\": 3, \"fn\": 9, \"status\": 0, \"x\": []}");
    ASSERT_TRUE(x) << "extra keys and no \"param\" are accepted";
    EXPECT_EQ(jxdr_proc_num(x.get()), 9);
}

/* A reply goes out as ASCII JSON with ", " and ": ", its NUL and "\n\n". */
TEST(Framing, ReplyRecordOnAPipe)
{
    Envelope req = parse(kRequest);
    ASSERT_TRUE(req);
    Envelope rep(jxdr_create_reply(req.get()));
    json_object_set_new(json_object_get(rep->x_hd, "param"), "str",
                        json_string("caf\xc3\xa9 \xe2\x82\xac"));
    std::string json = "{\"ver\": 1, \"type\": 2, \"seq\": 3, \"fn\": 2, \"status\": 0, "
                       "\"param\": {\"str\": \"caf\\u00E9 \\u20AC\"}}";
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    FILE* out = fdopen(fds[1], "w");
    STDIOChannel ch(stdin, out);
    ExecProto ep(&ch);
    EXPECT_EQ(ep.send(rep.get()), (int)json.size() + 1);
    fclose(out);
    char buf[256];
    ssize_t n = read(fds[0], buf, sizeof(buf));
    close(fds[0]);
    EXPECT_EQ(std::string(buf, n > 0 ? n : 0), json + std::string("\0\n\n", 3));
}

TEST(Endpoint, ReceiveResultsForEachKindOfLine)
{
    struct { const char* name; std::string input; std::vector<int> results; } rows[] = {
        {"request", kRequest + "\n", {0, -2}},
        {"lone newline", "\n", {-5, -2}},
        {"last line without newline is dropped", kRequest, {-2}},
        {"70000-byte line read in two pieces", std::string(70000, 'x') + "\n", {-5, -5, -2}},
        {"record and separator", kRequest + std::string("\0\n\n", 3), {0, -5, -2}},
        {"login noise between requests", kRequest + "\nLast login\n" + kRequest + "\n", {0, -5, 0, -2}},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(receive_all(row.input), row.results);
    }
    EXPECT_EQ(receive_all("", true), std::vector<int>{-1}) << "empty read";
}
