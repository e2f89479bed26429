// Audio Unit validation against stand-ins of the validator: its listing in
// each form it can take, the exit statuses of one unit's validation, the
// -auval verb and the table's sort memory.
#include "diagnostics/KTAUValidator.h"

#include <gtest/gtest.h>

#include <map>

#include "DiagnosticsTestSupport.h"
#include "SharedFiles/KTPreferences.h"
#include "support/ChildProcess.h"

namespace {

/// Lines of the tool's banner: nine lines in the old form.
const char* const kBanner =
    "\n"
    "    * * * * * * * * * * * * * * * * * * * * * * * * * *\n"
    "    AU Validation Tool\n"
    "    Version: 1.6.1a1\n"
    "    Copyright 2003-2013, Apple Inc. All Rights Reserved.\n"
    "\n"
    "    Specify -h (-help) for command options\n"
    "    * * * * * * * * * * * * * * * * * * * * * * * * * *\n"
    "\n";
/// Five lines the listing skips, the last one shaped like a unit.
const char* const kHeader =
    "--------------------------------------------------\n"
    "AU List\n"
    "--------------------------------------------------\n"
    "\n"
    "aufx hdr5 appl  -  Apple: HeaderLineThatLooksLikeAUnit\n";
const char* const kUnits =
    "aufx bpas appl  -  Apple: AUBandpass\n"
    "aumu dls  appl  -  Apple: DLSMusicDevice\n"
    "aumu abc  acme  -  Acme Inc: Three Letters\n"
    "aufx nocl acme  -  No Colon Here\n"
    "aufx nodh acme Acme: No Dash\n"
    "short line\n"
    "auou def  appl  -  Apple: DefaultOutputUnit\n";

/// A validator stand-in: "-a" prints the file "listing", "-v T S M" prints
/// a report and exits with the number in "codes/S" (0 without one; "kill"
/// makes it die of SIGKILL).
struct StandIn {
    std::string dir;
    EnvGuard env;
    explicit StandIn(const ScratchRoot& s)
        : dir(s.base() + "/tools"), env("AMBREL_TOOL_DIR", s.base() + "/tools") {
        DiagnosticsWorld::writeScript(dir + "/auval",
                                      "d=$(dirname \"$0\")\n"
                                      "if [ \"$1\" = -a ]; then cat \"$d/listing\"; exit 0; fi\n"
                                      "echo \"Validating $2 $3 $4\"; echo \"to stderr\" >&2\n"
                                      "c=$(cat \"$d/codes/$3\" 2>/dev/null || echo 0)\n"
                                      "[ \"$c\" = kill ] && kill -9 $$\n"
                                      "exit $c\n");
    }
    void listing(const std::string& text) const { ScratchRoot::writeFile(dir + "/listing", text); }
    void code(const std::string& subtype, const std::string& code) const {
        ScratchRoot::writeFile(dir + "/codes/" + subtype, code + "\n");
    }
};

struct Row {
    std::string type, id, man, manName, title, status;
    bool operator==(const Row&) const = default;
};
std::ostream& operator<<(std::ostream& o, const Row& r) {
    return o << "{" << r.type << "|" << r.id << "|" << r.man << "|" << r.manName << "|" << r.title
             << "|" << r.status << "}";
}
std::vector<Row> rows(const KTAUValidator& v) {
    std::vector<Row> out;
    for (const auto& r : v.auValArray())
        out.push_back({r->typeCode, r->idCode, r->manCode, r->manName, r->title, r->status()});
    return out;
}

/// Records the sort indicators the validator sets.
struct RecordingView : KTAUValidatorView {
    std::vector<std::string> indicators;
    void setSortIndicator(const std::string& column, std::optional<bool> descending) override {
        indicators.push_back(column + (descending ? (*descending ? " v" : " ^") : " -"));
    }
};

}  // namespace

TEST(KTAUValidatorTest, ListingInEachFormTheValidatorPrints) {
    DiagnosticsWorld w;
    KTAUValidator& v = w.app->auValidator();
    const std::vector<Row> expected = {
        {"aufx", "bpas", "appl", " Apple", "AUBandpass", "OK"},
        {"aumu", "abc", "", " Acme Inc", "Three Letters", "OK"},
        {"aufx", "nocl", "acme", " No Colon Here", "Unknown", "OK"},
        {"aufx", "nodh", "acme", "Unknown", "No Dash", "OK"},
    };
    {
        // No validator on this system.
        EXPECT_FALSE(v.processAUValidation());
        ASSERT_EQ(w.ui->alerts().size(), 1u);
        EXPECT_EQ(w.ui->alerts()[0].message, "Unable to locate validator");
        EXPECT_EQ(w.ui->alerts()[0].informative, "Audio Unit validation could not be completed.");
        EXPECT_FALSE(v.hasList());
    }
    StandIn tool(w.scratch);
    // The old banner form: banner and last line cut, five more lines skipped.
    tool.listing(std::string(kBanner) + kHeader + kUnits);
    ASSERT_TRUE(v.processAUValidation());
    EXPECT_EQ(rows(v), expected);
    const std::string log = w.log();
    EXPECT_NE(log.find("Found Audio Unit AUBandpass"), std::string::npos);
    EXPECT_EQ(log.find("Found Audio Unit HeaderLineThatLooksLikeAUnit"), std::string::npos);
    EXPECT_EQ(log.find("Found Audio Unit DLSMusicDevice"), std::string::npos);
    EXPECT_NE(log.find("Audio unit validation complete"), std::string::npos);

    // Without the banner only the five header lines go; nothing is cut at the end.
    tool.listing(std::string(kHeader) + kUnits + "aufx last acme  -  Acme: Last Line");
    ASSERT_TRUE(v.processAUValidation());
    std::vector<Row> withLast = expected;
    withLast.push_back({"aufx", "last", "acme", " Acme", "Last Line", "OK"});
    EXPECT_EQ(rows(v), withLast);

    // Failures leave the last list in place, each with its alert.
    const std::map<std::string, std::string> failures = {
        {"", "Error: no data returned from validator"},
        {"1\n2\n3\n4\n5\n6\n7\naufx bpas appl  -  Apple: AUBandpass\n",  // 9 lines
         "Error: invalid data returned from validator"},
    };
    for (const auto& [listing, message] : failures) {
        tool.listing(listing);
        EXPECT_FALSE(v.processAUValidation());
        EXPECT_EQ(w.ui->alerts().back().message, message);
        EXPECT_EQ(w.ui->alerts().back().informative,
                  "Audio Unit validation could not be completed.");
        EXPECT_EQ(rows(v), withLast);
    }
    EXPECT_NE(w.log().find("Items: ("), std::string::npos);
}

TEST(KTAUValidatorTest, ExitStatusesBecomeStatusesAndLogLines) {
    DiagnosticsWorld w;
    StandIn tool(w.scratch);
    std::string listing = kHeader;
    const std::map<std::string, std::pair<std::string, std::string>> cases = {
        {"0", {"OK", ""}},
        {"1", {"General Error", "returned General Error"}},
        {"2", {"Fatal Error", "returned Fatal Error"}},
        {"3", {"Unknown", "returned Unknown (return code 3)"}},
        {"4", {"Unauthorized", "returned Unauthorized (open)"}},
        {"5", {"Unauthorized", "returned Unauthorized (init)"}},
        {"42", {"Unknown", "returned Unknown (return code 42)"}},
        {"kill", {"Unknown", "returned Unknown (return code 9)"}},
    };
    for (const auto& [code, outcome] : cases) {
        tool.code("c" + code, code);
        listing += "aufx c" + code + " acme  -  Acme: Unit " + code + "\n";
    }
    tool.listing(listing);
    KTAUValidator& v = w.app->auValidator();
    ASSERT_TRUE(v.processAUValidation());
    const std::string log = w.log();
    ASSERT_EQ(v.auValArray().size(), cases.size());
    for (const auto& record : v.auValArray()) {
        const std::string code = record->idCode.substr(1);
        const auto& [status, line] = cases.at(code);
        EXPECT_EQ(record->status(), status) << code;
        if (line.empty())
            EXPECT_EQ(log.find("Unit " + code + " returned"), std::string::npos) << code;
        else
            EXPECT_NE(log.find(record->title + " " + line), std::string::npos) << code;
    }
    // The inspector shows the report; the error stream only stands in for a report.
    EXPECT_EQ(v.inspectionReport(v.auValArray()[0]), "Validating aufx c0 acme\n");

    // A validator gone by the time a unit is validated: "Failed".
    ::unlink((tool.dir + "/auval").c_str());
    v.validateAudioUnit(v.auValArray()[0]);
    EXPECT_EQ(v.auValArray()[0]->status(), "Failed");
    EXPECT_NE(w.log().find("Unit 0 returned Failed"), std::string::npos);
}

TEST(KTAUValidatorTest, CommandLinePrintsOneLinePerUnitAndExitsByOutcome) {
    ScratchRoot s;
    const std::string ambrel = ChildProcess::builtProgram("ambrel");
    {
        ChildProcess p = ChildProcess::run({ambrel, "-auval"});
        EXPECT_EQ(p.exitCode, 2) << p.err;
        EXPECT_EQ(p.out,
                  "Unable to locate validator Audio Unit validation could not be completed.\n");
    }
    StandIn tool(s);
    tool.listing(std::string(kBanner) + kHeader + kUnits);
    {
        ChildProcess p = ChildProcess::run({ambrel, "-auval"});
        EXPECT_EQ(p.exitCode, 0) << p.err;
        EXPECT_EQ(p.out,
                  "AUBandpass\t Apple\tOK\n"
                  "Three Letters\t Acme Inc\tOK\n"
                  "Unknown\t No Colon Here\tOK\n"
                  "No Dash\tUnknown\tOK\n");
    }
    tool.code("abc", "2");
    {
        ChildProcess p = ChildProcess::run({ambrel, "-auval"});
        EXPECT_EQ(p.exitCode, 1) << p.err;
        EXPECT_NE(p.out.find("Three Letters\t Acme Inc\tFatal Error\n"), std::string::npos);
    }
}

TEST(KTAUValidatorTest, SortingIsRememberedAcrossClicksAndNewLists) {
    DiagnosticsWorld w;
    KTAUValidator& v = w.app->auValidator();
    RecordingView view;
    v.setView(&view);
    auto record = [](std::string title, std::string man, std::string status) {
        auto r = std::make_shared<KTAURecord>();
        r->title = std::move(title);
        r->manName = std::move(man);
        r->setStatus(status);
        return r;
    };
    auto titles = [&] {
        std::string out;
        for (const auto& r : v.auValArray()) out += r->title + ",";
        return out;
    };
    v.applySortingForTableView();  // no list yet: nothing happens
    EXPECT_TRUE(view.indicators.empty());
    v.updateAUValArray({record("beta", " Zeta", "OK"), record("Alpha", " acme", "Failed"),
                        record("gamma", " Beta", "Unknown")});
    // No stored column: the first column, ascending, ignoring case.
    v.applySortingForTableView();
    EXPECT_EQ(titles(), "Alpha,beta,gamma,");

    KTPreferences& prefs = KTPreferences::standard();
    v.didClickTableColumn("colManufacturer");
    EXPECT_EQ(titles(), "Alpha,gamma,beta,");
    EXPECT_EQ(prefs.stringForKey("auValSortedColumn"), "colManufacturer");
    EXPECT_FALSE(prefs.boolForKey("auValSortedDescending"));
    v.didClickTableColumn("colManufacturer");  // the same column again: reversed
    EXPECT_EQ(titles(), "beta,gamma,Alpha,");
    EXPECT_TRUE(prefs.boolForKey("auValSortedDescending"));
    v.didClickTableColumn("colStatus");  // another column: ascending, old indicator removed
    EXPECT_EQ(titles(), "Alpha,beta,gamma,");
    EXPECT_FALSE(prefs.boolForKey("auValSortedDescending"));
    EXPECT_EQ(view.indicators,
              (std::vector<std::string>{"colTitle ^", "colManufacturer ^", "colManufacturer v",
                                        "colManufacturer -", "colStatus ^"}));

    // A new list is sorted as stored; an unknown column changes nothing.
    v.didClickTableColumn("colStatus");
    v.updateAUValArray(
        {record("x", "", "Fatal Error"), record("y", "", "OK"), record("z", "", "Validating...")});
    v.applySortingForTableView();
    EXPECT_EQ(titles(), "z,y,x,");
    v.sortColumnWithIdentifier("colNothing", false);
    EXPECT_EQ(titles(), "z,y,x,");
    v.setView(nullptr);
}
