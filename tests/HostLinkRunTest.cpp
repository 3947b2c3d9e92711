// Host-link sessions as the factory PC drives them: requests to the request keys, answers from the response keys.
#include "ControllerTestKit.h"
#include "pref_sim.h"

#include <atomic>
#include <cstdio>
#include <thread>
#include <unistd.h>

namespace {

using namespace controller_test;

const std::string kDone = "Param3=0 Param2=0 Param1=10000000", kFailed = "Param3=0 Param2=1 Param1=10000002";

class HostLinkRunTest : public ControllerTest {
protected:
    void SetUp() override
    {
        ControllerTest::SetUp();
        root.WriteFile("/mnt/mmc/info.tgw", "factory");
        root.WriteFile(kPayload, "PAYLOAD-BYTES");
        for (const char* group : {"LENS", "UI", "DD", "CAP", "ETC"}) // the registry deletes them at exit
            CWorkerFactory::GetInstance()->AddWorker(new TestWorker(group, [this](_tPM_Command& c) { return Serve(c); }));
    }

    /// Besides logging, a worker writes the strobe process mark given as third parameter or starts recording.
    int Serve(_tPM_Command& command)
    {
        EXPECT_EQ(OP_TYPE_PTP, mode->GetOperationType());
        if (failNext.exchange(false)) return -1;
        const std::string what = command.szParam[0];
        if (what == "strobe") return CAdjustDataManager::GetInstance()->SetData(11, command.szParam[2], 1, true) ? 0 : -1;
        const bool record = what == "create_file" && std::string(command.szParam[1]) == "on";
        return record && !mode->StartCreateFile(command.szParam[2]) ? -1 : 0;
    }

    /// Initialize, Start, and wait until the channel listens.
    void StartSession()
    {
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
        ASSERT_TRUE(traced("vconf_add_chaged_cb success for key : memory/private/pmode_protocol1", 5s));
    }

    /// The answer ("" after 5 s) to a script line or "op <code> <p1..p4>" in hex ("!op": the worker fails it).
    std::string Exchange(const std::string& request)
    {
        failNext = request[0] == '!';
        uint32_t code = 0, args[4] = {};
        if (request.compare(failNext ? 1 : 0, 3, "op ") == 0) {
            std::sscanf(request.c_str() + request.find(' '), "%x %x %x %x %x", &code, &args[0], &args[1], &args[2], &args[3]);
            for (int i = 0; i < 4; ++i) vconf_set_int(kProtocolKeys[i + 1], static_cast<int>(args[i]));
            vconf_set_int(kProtocolKeys[0], static_cast<int>(code));
        } else {
            vconf_set_str(kScriptKey, request.c_str());
        }
        return takeAnswers(true);
    }

    std::atomic<bool> failNext{false};
};

TEST_F(HostLinkRunTest, EveryRequestIsAnsweredByTheWorkerItNamesOrByTheLoop)
{
    CAdjustDataManager::GetInstance()->Initialize(); // the workers write the strobe process mark
    root.WriteFile("/mnt/mmc/folder/keep", ""); // a directory where a record file should be
    ASSERT_EQ(0, symlink("/dev/full", root.Host("/mnt/mmc/full.txt").c_str())); // a full card
    StartSession();
    const unsigned long checksBefore = pm::AssertionCount();
    const std::tuple<const char*, std::string, std::string> steps[] = { // request, answer, call ("": no worker runs)
        // Before any script line no worker can run an operation: a failed check, a failure.
        {"op 10030000 1 2 0 0", kFailed, ""},
        {"lens init 1", kDone, "LENS: lens init 1"}, {"key fail 2", kFailed, "UI: key fail 2"},
        {"line_process strobe flash_write &", "Param3=0 Param2=0 Param1=10000002", "CAP: line_process strobe flash_write &"},
        {"line_process strobe flash_write ^", kFailed, "CAP: line_process strobe flash_write ^"},
        {"line_process strobe flash_read &", kDone, "CAP: line_process strobe flash_read &"},
        // Nothing serves it, nothing is prepared: the values held are sent again.
        {"no_such_command x 1", kDone, ""},
        // Operations run on the worker of the last script line.
        {"line_process rtc 1", kDone, "DD: line_process rtc 1"},
        {"op 10030000 5 6 0 0", "Param3=0 Param2=10003 Param1=10000002", "DD: line_process rtc2 1 | 5 6 0 0"},
        {"shutter speed 1", kDone, "CAP: shutter speed 1"},
        {"op 10011000 1 0 0 4", kDone, ""},      // the lower half of p1 is not 2
        {"op 10011000 30002 0 0 4", kFailed, ""}, // the upper half is above 2: a failed check
        {"op 10011000 10002 0 0 9", kDone, "CAP: shutter shutter_speed2 1 | 9 1 0 0 | PAYLOAD"},
        {"!op 10011000 20002 0 0 4", kFailed, "CAP: shutter shutter_speed2 1 | 4 2 0 0 | PAYLOAD"},
        {"line_process cis_data 0", kDone, "ETC: line_process cis_data 0"},
        {"op 10021000 1 2 3 4", "Param3=0 Param2=0 Param1=10020002", "ETC: line_process cis_data2 0 | 4 1 2 3 | PAYLOAD"},
        {"line_process cis 0", kDone, "CAP: line_process cis 0"},
        {"op 10021001 1 2 3 4", "Param3=0 Param2=0 Param1=10020000", "CAP: line_process cis_data_info 0 | 1 2 3 4"},
        {"line_process paf 1", kDone, "CAP: line_process paf 1"}, {"!op 10040000 0 0 0 0", kFailed, "CAP: line_process paf2 1"},
        {"op 10040000 0 0 0 0", kFailed, "CAP: line_process paf2 1"},
        {"op 10040001 0 0 0 0", kFailed, ""}, {"op 10090000 0 0 0 0", kFailed, ""},
        // Recorded lines go to the card, not to a worker; the line that ends recording is run.
        {"data create_file on record.txt", kDone, "DD: data create_file on record.txt"},
        {"adj_result 1 2", kDone, ""}, {"lens init 1", kDone, ""}, {"shutter_log a", kDone, ""}, {"sys_14 b", kDone, ""},
        {"data create_file off", kDone, "DD: data create_file off"},
        {"data create_file on folder", kDone, "DD: data create_file on folder"},
        {"adj_result 1 2", kFailed, ""}, // a failed check
        {"data create_file off", kDone, "DD: data create_file off"},
        {"data create_file on full.txt", kDone, "DD: data create_file on full.txt"}, {"lens init 3", kFailed, ""},
        {"data create_file off", kDone, "DD: data create_file off"}};
    for (const auto& [request, answer, call] : steps) {
        SCOPED_TRACE(request);
        EXPECT_EQ(answer, Exchange(request));
        EXPECT_EQ(call.empty() ? Lines{} : Lines{call}, calls(true));
    }
    // Line data that cannot take the adjust result: a failed check, no answer of the worker's own.
    pref_sim_fail_next(PREF_SIM_OP_SET_LONG, 1);
    EXPECT_EQ(kDone, Exchange("line_process strobe flash_write &"));
    EXPECT_EQ(checksBefore + 4, pm::AssertionCount());
    for (const char* trace : {"CMD FAIL: key, fail, 2", "Worker None: no_such_command, x, 1", "Worker None: line_process, paf, 1", "File Open ERROR"})
        EXPECT_TRUE(traced(trace)) << trace;
    EXPECT_EQ("adj_result.csv 1 2\nlens init 1\nshutter_log.csv a\nsys_14.csv b\n", root.ReadFile("/mnt/mmc/record.txt"));
    int stored = 0;
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->GetData(137, &stored, sizeof stored));
    EXPECT_EQ(PM_RESULT_FAIL, stored);
    EXPECT_FALSE(mode->StartCreateFile(std::string(55, 'n')));
    EXPECT_FALSE(mode->StartCreateFile(""));
    EXPECT_TRUE(mode->StartCreateFile(std::string(54, 'n')));
    EXPECT_TRUE(mode->IsCreatingFile());
    Finalize();
}

TEST_F(HostLinkRunTest, FinalizeEndsTheLoopAtAnyMomentAndAChannelThatCannotSubscribeIsReported)
{
    vconf_sim_fail_next_notify(2);
    mode->Initialize();
    ASSERT_TRUE(mode->Start());
    ASSERT_TRUE(traced("vconf_add_chaged_cb fail for key : memory/private/pmode_protocol1", 5s));
    Finalize(); // joins the thread that reports
    EXPECT_THAT(root.ReadFile("/var/log/dlog.log"), testing::HasSubstr("PTP Mount Error"));
    for (int pause : {0, 1, 0, 3, 0}) {
        SCOPED_TRACE("Finalize " + std::to_string(pause) + " ms after Start");
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
        std::this_thread::sleep_for(std::chrono::milliseconds(pause));
        Finalize();
    }
    StartSession();
    Finalize();
    vconf_set_str(kScriptKey, "lens init 1");
    EXPECT_EQ(0, vconf_sim_wait_idle(2000));
    EXPECT_TRUE(calls().empty()) << "the channel no longer listens";
}

} // namespace
