// record, forward and export against real processes: the tool, a producer (this test process),
// a syslog server and the JSON reader of Python.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <regex>
#include <thread>

#include "ToolTest.h"
#include "Trace/Records/CsvField.h"
#include "Trace/Records/Severity.h"
#include "Trace/Records/Trace.h"
#include "paxltrace.h"
#include "tools/RotatingFiles.h"
#include "tools/SyslogMessage.h"
#include "tools/ToolOs.h"
#include "tools/TraceText.h"

namespace Tracing::Tool {
namespace {

namespace fs = std::filesystem;
using Test::WaitFor;

// Writes numbered traces: trace i has line i and one of four severities.
class Producer {
public:
    explicit Producer(const char* buffer) {
        EXPECT_EQ(trace_engine_create(buffer, "Mod", 0, 0, true, &m_engine, nullptr), TRACE_ENGINE_OK);
        trace_engine_set_location(m_engine, true);
    }
    ~Producer() { trace_engine_destroy(m_engine); }

    void Write(int from, int to) {
        for (int i = from; i <= to; ++i) {
            trace_engine_write(m_engine, File, static_cast<unsigned>(i), SeverityOf(i), Text(i).c_str(), 0, 0,
                               nullptr);
        }
    }

    // Quotes, backslash, bracket and a non-ASCII letter: what every output must escape or keep.
    static std::string Text(int i) { return "trace " + std::to_string(i) + " \"q\" \\ ] \xC3\xBC"; }
    static unsigned SeverityOf(int i) {
        static const unsigned severities[] = {Severity::Info, Severity::Warning, Severity::Error,
                                              Severity::Debug};
        return severities[i % 4];
    }
    static constexpr const char* File = "src/\"odd\"]\\job.cpp";

private:
    TraceEngine* m_engine = nullptr;
};

class TraceOutputTest : public ToolTest {
protected:
    // The CSV traces of every recorded file, oldest file first; the files' names in files.
    static std::vector<std::unique_ptr<Trace>> ReadRecorded(const std::string& dir,
                                                            std::vector<std::string>* files = nullptr) {
        std::vector<std::string> names;
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(dir, error)) {
            if (entry.path().extension() == ".csv") {
                names.push_back(entry.path().string());
            }
        }
        std::sort(names.begin(), names.end());
        std::vector<std::unique_ptr<Trace>> traces;
        for (const std::string& name : names) {
            std::ifstream in(name, std::ios::binary);
            std::vector<std::unique_ptr<Trace>> part;
            Trace::ReadCsvFromStream(in, part, 0, Trace::CSV_SEPARATOR);
            for (auto& trace : part) {
                traces.push_back(std::move(trace));
            }
        }
        if (files != nullptr) {
            *files = names;
        }
        return traces;
    }

    // The record command of the installed service unit, with its settings given the values here.
    static std::vector<std::string> RecordCommandOfUnit(const std::string& dir, const std::string& options) {
        std::ifstream unit(PAXLTRACE_RECORD_UNIT);
        std::string line;
        while (std::getline(unit, line) && line.rfind("ExecStart=", 0) != 0) {
        }
        std::vector<std::string> args;
        std::istringstream words(line.substr(line.find(' ') + 1));
        for (std::string word; words >> word;) {
            if (word == "${PAXLTRACE_RECORD_DIR}") {
                args.push_back(dir);
            } else if (word == "$PAXLTRACE_RECORD_OPTIONS") {
                std::istringstream split(options);
                for (std::string option; split >> option;) {
                    args.push_back(option);
                }
            } else {
                args.push_back(word);
            }
        }
        return args;
    }
};

TEST_F(TraceOutputTest, RecordKeepsEveryTraceOnceAcrossRestartsAndRotation) {
#ifdef _WIN32
    const std::vector<std::string> args{"record", "-o", TempFile("rec"), "--rotate-size", "8KiB",
                                        "--csv",  "-b", "Recorded"};
    const std::string dir = args[2];
#else
    const std::string dir = TempFile("rec");
    const auto args = RecordCommandOfUnit(dir, "--rotate-size 8KiB --csv -b Recorded");
    ASSERT_EQ(args.size(), 8u) << "unexpected ExecStart in " PAXLTRACE_RECORD_UNIT;
#endif
    Producer producer("Recorded");
    const auto recordedUpTo = [&](size_t count) {
        return WaitFor([&] { return ReadRecorded(dir).size() >= count; }, 20000);
    };
    producer.Write(1, 150);
    pid_t recorder = Start(args, TempFile("record1"));
    ASSERT_TRUE(recordedUpTo(150));
    RequestStop(recorder);
    ASSERT_EQ(Wait(recorder), 0);

    // Text written after the last saved state (as by a recorder killed mid-batch) is cut away and
    // written again; traces written meanwhile and while the next run lasts all arrive.
    producer.Write(151, 200);
    std::vector<std::string> files;
    ReadRecorded(dir, &files);
    std::ofstream(files.back(), std::ios::app) << "150;a;b;c;Recorded;Mod;Info;;x;1 (0x1);stale;;\n";
    recorder = Start(args, TempFile("record2"));
    ASSERT_TRUE(recordedUpTo(200));
    producer.Write(201, 250);
    ASSERT_TRUE(recordedUpTo(250));
    RequestStop(recorder);
    ASSERT_EQ(Wait(recorder), 0);

    const auto traces = ReadRecorded(dir, &files);
    ASSERT_EQ(traces.size(), 250u);
    for (int i = 1; i <= 250; ++i) {
        const Trace& trace = *traces[static_cast<size_t>(i - 1)];
        // IDs rise in the order of writing (other buffers of this process may take some between).
        ASSERT_TRUE(i == 1 || trace.GetID() > traces[static_cast<size_t>(i - 2)]->GetID()) << i;
        EXPECT_EQ(trace.GetFormattedMessage(), Producer::Text(i));
        EXPECT_EQ(trace.GetLineNumber(), static_cast<unsigned>(i));
        EXPECT_EQ(trace.GetSeverity(), Producer::SeverityOf(i));
    }
    // Rotated at the size, each file with one header; a restart appends instead of beginning a file.
    ASSERT_GE(files.size(), 3u);
    for (size_t f = 0; f < files.size(); ++f) {
        const std::string text = Read(files[f]);
        EXPECT_EQ(text.find("\"Line #\""), text.rfind("\"Line #\"")) << files[f];
        if (f + 1 < files.size()) {
            EXPECT_LE(text.size(), 8192u);
            EXPECT_GE(text.size(), 8192u - 400u) << files[f];
        }
    }
}

#ifndef _WIN32
// A syslog server of its own on free loopback ports, writing each message's fields tab-separated.
class Rsyslog {
public:
    explicit Rsyslog(const std::string& dir) : m_dir(dir), m_port(FreePort()) {
        fs::create_directories(dir);
        std::ofstream(dir + "/rsyslog.conf")
            << "global(workDirectory=\"" << dir << "\")\n"
            << "module(load=\"imtcp\")\nmodule(load=\"imudp\")\n"
            << "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" << m_port << "\")\n"
            << "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" << m_port << "\")\n"
            << "template(name=\"fields\" type=\"string\" string=\"%inputname%\\t%pri%\\t"
               "%timereported:::date-rfc3339%\\t%hostname%\\t%app-name%\\t%procid%\\t%msgid%\\t"
               "%structured-data%\\t%msg%\\n\")\n"
            << "*.* action(type=\"omfile\" file=\"" << dir << "/messages\" template=\"fields\")\n";
    }
    ~Rsyslog() { Stop(); }

    bool Start() {
        Test::ProcessOptions options;
        options.output = options.error = m_dir + "/rsyslogd.out";
        m_pid =
            Test::StartProcess("/usr/sbin/rsyslogd",
                               {"-n", "-f", m_dir + "/rsyslog.conf", "-i", m_dir + "/rsyslogd.pid"}, options);
        return WaitFor(
            [&] {
                std::string error;
                SocketHandle socket = ConnectSocket("127.0.0.1", std::to_string(m_port), true, 1000, error);
                CloseSocket(socket);
                return socket != NoSocket;
            },
            20000);
    }
    void Stop() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            Test::WaitChild(m_pid);
            m_pid = -1;
        }
    }
    std::string Url(const char* protocol) const {
        return std::string(protocol) + "://127.0.0.1:" + std::to_string(m_port);
    }

    std::string Log() const {
        std::ifstream in(m_dir + "/rsyslogd.out");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // Fields of the messages received so far, by transport ("imtcp" or "imudp").
    std::vector<std::vector<std::string>> Messages(const std::string& input) const {
        std::ifstream in(m_dir + "/messages");
        std::vector<std::vector<std::string>> messages;
        for (std::string line; std::getline(in, line);) {
            std::vector<std::string> fields;
            std::istringstream split(line);
            for (std::string field; std::getline(split, field, '\t');) {
                fields.push_back(field);
            }
            if (!fields.empty() && fields[0] == input) {
                messages.push_back(fields);
            }
        }
        return messages;
    }

private:
    static int FreePort() {
        std::string error;
        for (int port = 20000 + getpid() % 20000;; port = 20000 + (port + 7) % 40000) {
            SocketHandle socket = ConnectSocket("127.0.0.1", std::to_string(port), true, 200, error);
            if (socket == NoSocket) {
                return port;
            }
            CloseSocket(socket);
        }
    }

    std::string m_dir;
    int m_port;
    pid_t m_pid = -1;
};

TEST_F(TraceOutputTest, ForwardDeliversEachTraceOnceAndCountsWhatAServerRestartCost) {
    if (!fs::exists("/usr/sbin/rsyslogd")) {
        GTEST_SKIP() << "rsyslogd is not installed (scripts/install-deps.sh installs it)";
    }
    Rsyslog server(TempFile("rsyslog"));
    ASSERT_TRUE(server.Start());
    Producer producer("Forwarded");
    const std::string tcpOut = TempFile("forward_tcp"), udpOut = TempFile("forward_udp");
    pid_t tcp =
        Start({"forward", "--syslog", server.Url("tcp"), "--queue", "200", "-b", "Forwarded"}, tcpOut);
    pid_t udp = Start({"forward", "--syslog", server.Url("udp"), "-s", "Warning", "-b", "Forwarded"}, udpOut);
    producer.Write(1, 100);
    ASSERT_TRUE(WaitFor([&] { return server.Messages("imtcp").size() >= 100; }, 20000))
        << Read(tcpOut + ".err") << server.Log();
    ASSERT_TRUE(WaitFor([&] { return server.Messages("imudp").size() >= 50; }, 20000));
    RequestStop(udp);
    ASSERT_EQ(Wait(udp), 0);

    // While the server is away 200 traces wait; the 100 after them are dropped and counted.
    server.Stop();
    producer.Write(101, 400);
    ASSERT_TRUE(
        WaitFor([&] { return Read(tcpOut + ".err").find("dropping new ones") != std::string::npos; }, 20000));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ASSERT_TRUE(server.Start());
    ASSERT_TRUE(WaitFor([&] { return server.Messages("imtcp").size() >= 300; }, 20000));
    RequestStop(tcp);
    ASSERT_EQ(Wait(tcp), 0);
    const std::string report = Read(tcpOut + ".err");
    EXPECT_NE(report.find("100 traces dropped while it was away"), std::string::npos) << report;
    EXPECT_NE(report.find("forwarded 300 traces to " + server.Url("tcp") + ", dropped 100"),
              std::string::npos)
        << report;

    const std::string host = MachineName(), pid = std::to_string(getpid());
    const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}(Z|\+00:00))");
    for (const char* input : {"imtcp", "imudp"}) {
        std::map<int, int> seen;
        std::map<int, long> ids;
        for (auto fields : server.Messages(input)) {
            ASSERT_EQ(fields.size(), 9u);
            const int i = std::stoi(fields[8].substr(fields[8].find("trace ") + 6));
            ++seen[i];
            // IDs follow the order of writing; other tests of this process may have taken some.
            std::smatch id;
            ASSERT_TRUE(std::regex_search(fields[7], id, std::regex("id=\"([0-9]+)\"")));
            ids[i] = std::stol(id[1]);
            fields[7] = std::regex_replace(fields[7], std::regex("id=\"[0-9]+\""), "id=\"N\"",
                                           std::regex_constants::format_first_only);
            const int pri = 16 * 8 + SyslogSeverity(Producer::SeverityOf(i));
            const std::string sd =
                std::string("[paxltrace@32473 id=\"N\" buffer=\"Forwarded\" module=\"Mod\" severity=\"") +
                Severity::Name(Producer::SeverityOf(i)) + "\" tid=\"" + pid +
                "\" flags=\"\" file=\"src/\\\"odd\\\"\\]\\\\job.cpp\" line=\"" + std::to_string(i) + "\"]";
            EXPECT_EQ(fields[1], std::to_string(pri));
            EXPECT_TRUE(std::regex_match(fields[2], time)) << fields[2];
            EXPECT_EQ(fields[3], host);
            EXPECT_EQ(fields[5], pid);
            EXPECT_EQ(fields[6], "Mod");
            EXPECT_EQ(fields[7], sd);
            EXPECT_EQ(fields[8], "\xEF\xBB\xBF" + Producer::Text(i));
        }
        // TCP: 1-300 once each; UDP (Warning and worse only): the 50 of 1-100 that pass.
        const bool udpInput = std::string(input) == "imudp";
        EXPECT_EQ(seen.size(), udpInput ? 50u : 300u) << input;
        EXPECT_TRUE(
            std::is_sorted(ids.begin(), ids.end(), [](auto& a, auto& b) { return a.second < b.second; }));
        for (const auto& [i, count] : seen) {
            EXPECT_EQ(count, 1) << input << " trace " << i;
            EXPECT_LE(i, udpInput ? 100 : 300);
            EXPECT_TRUE(!udpInput || Producer::SeverityOf(i) <= Severity::Warning) << i;
        }
    }
}

TEST_F(TraceOutputTest, ExportWritesEachTraceAsOneEventFromLiveTracesAndFromFiles) {
    Producer producer("Exported");
    producer.Write(1, 40);
    const std::string live = TempFile("live.json"), csv = TempFile("tail.csv"),
                      fromCsv = TempFile("csv.json");
    ASSERT_EQ(Run({"export", "--chrome", live, "--duration", "1.5", "-b", "Exported"}), 0);
    ASSERT_EQ(Run({"tail", "--csv", "-o", csv, "--duration", "1", "-b", "Exported"}), 0);
    ASSERT_EQ(Run({"export", "--chrome", fromCsv, csv}), 0);

    // Every instant event as one line, then the names of processes and threads.
    const char* script = R"(
import json, sys
for path in sys.argv[1:]:
    events = json.load(open(path, encoding='utf-8'))['traceEvents']
    for e in events:
        if e['ph'] == 'i':
            a = e['args']
            print('|'.join(str(v) for v in (a['id'], e['pid'], e['tid'], type(e['ts']).__name__, e['name'],
                                            e['cat'], a['severity'], a['file'], a['line'])))
        else:
            print(e['ph'], e['name'], e['pid'], e.get('tid', '-'), e['args']['name'] != '')
)";
    std::string out;
    const std::string outPath = TempFile("python");
    const pid_t python = Start({"python3", "-c", script, live, fromCsv}, outPath, "/usr/bin/env");
    ASSERT_EQ(Wait(python), 0) << Read(outPath + ".err");
    std::istringstream lines(Read(outPath));
    const std::string pid = std::to_string(getpid());
    for (int run = 0; run < 2; ++run) {
        unsigned lastID = 0;
        for (int i = 1; i <= 40; ++i) {
            std::string line;
            std::getline(lines, line);
            const unsigned id = static_cast<unsigned>(std::stoul(line));
            EXPECT_GT(id, lastID);
            lastID = id;
            EXPECT_EQ(line.substr(line.find('|')), "|" + pid + "|" + pid + "|float|" + Producer::Text(i) +
                                                       "|Mod|" + Severity::Name(Producer::SeverityOf(i)) +
                                                       "|" + Producer::File + "|" + std::to_string(i));
        }
        std::string process, thread;
        std::getline(lines, process);
        std::getline(lines, thread);
        EXPECT_EQ(process, "M process_name " + pid + " - True");
        EXPECT_EQ(thread, "M thread_name " + pid + " " + pid + " True");
    }
    std::getline(lines, out);
    EXPECT_TRUE(out.empty()) << out;
}
#endif

TEST(SyslogTextTest, ReceiversGetWellFormedUtf8AndTargetsParseAsWritten) {
    const std::pair<std::string, std::string> texts[] = {
        {"plain \xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80", "plain \xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"cut \xC3", "cut \xEF\xBF\xBD"},                          // sequence ends early
        {"latin1 \xFC!", "latin1 \xEF\xBF\xBD!"},                  // a lone lead byte
        {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},                  // overlong '/'
        {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // surrogate
    };
    for (const auto& [text, expected] : texts) {
        EXPECT_EQ(ValidUtf8(text), expected) << text;
    }
    SyslogTarget target;
    std::string error;
    ASSERT_TRUE(ParseSyslogTarget("udp://[::1]:5514", target, error));
    EXPECT_FALSE(target.Tcp);
    EXPECT_EQ(target.Host + " " + target.Port, "::1 5514");
    EXPECT_FALSE(ParseSyslogTarget("tcp://host:70000", target, error));
    EXPECT_FALSE(ParseSyslogTarget("tcp://[::1]", target, error));
    EXPECT_EQ(SyslogFacility("local7"), 23);
    EXPECT_EQ(FrameOctetCounted("<134>1 - - - - - -"), "18 <134>1 - - - - - -");
}

TEST_F(TraceOutputTest, RotationKeepsTheNewestFilesEachWithItsHeader) {
    const std::string dir = TempFile("rotate");
    RotatingFiles files(dir, ".log", "H\n", 4096, 2);
    std::string error;
    ASSERT_TRUE(files.Open("", 0, error)) << error;
    for (int i = 0; i < 100; ++i) {
        files.Add(std::string(99, 'a' + i % 26) + "\n");
    }
    ASSERT_TRUE(files.Flush(error)) << error;
    // 40 lines fit in 4096 bytes with the header: 100 lines make three files, of which two stay.
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    ASSERT_EQ(names, (std::vector<std::string>{"paxltrace-000002.log", "paxltrace-000003.log"}));
    EXPECT_EQ(Read(dir + "/" + names[0]).size(), 2u + 40 * 100);
    EXPECT_EQ(Read(dir + "/" + names[1]).substr(0, 3), "H\nc");  // line 80 begins it
    EXPECT_EQ(files.Length(), 2u + 20 * 100);
}

// One clear line and the documented exit code for what cannot work, never a wait.
TEST_F(TraceOutputTest, BadArgumentsAndUnreachableServersEndAtOnce) {
    const std::string missing = TempFile("missing.log"), dir = TempFile("badrec");
    const struct {
        std::vector<std::string> args;
        int code;
        const char* says;
    } cases[] = {
        {{"record", "--help"}, 0, "--rotate-size"},
        {{"forward", "--help"}, 0, "--facility"},
        {{"export", "--help"}, 0, "--chrome"},
        {{"record"}, 2, "--output is required"},
        {{"record", "-o", dir, "--rotate-size", "12X"}, 2, "rotation size '12X'"},
        {{"record", "-o", dir, "-s", "Loud"}, 2, "unknown severity 'Loud'"},
        {{"forward", "--syslog", "http://x:1"}, 2, "must be tcp://HOST:PORT"},
        {{"forward", "--syslog", "tcp://localhost"}, 2, "needs a host and a port"},
        {{"forward", "--syslog", "udp://127.0.0.1:514", "--facility", "local9"}, 2, "unknown facility"},
        {{"forward", "--syslog", "tcp://127.0.0.1:1"}, 1, "cannot reach tcp://127.0.0.1:1"},
        {{"export", "--chrome", dir + ".json"}, 2, "either an input file or --duration"},
        {{"export", "--chrome", dir + ".json", missing}, 1, "cannot read"},
        {{"export", "--chrome", dir + ".json", PAXLTRACE_TOOL_EXAMPLES "/profile.toml"}, 2, "are not traces"},
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(Run(c.args, &out), c.code) << c.args[0] << ' ' << c.args[1];
        EXPECT_NE(out.find(c.says), std::string::npos) << out;
    }
}

}  // namespace
}  // namespace Tracing::Tool
