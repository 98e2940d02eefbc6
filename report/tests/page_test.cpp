// What is drawn of runs: that texts of a log stay texts, and that what is drawn is what happened. How the page looks
// and works in a browser is page_in_browser's.
#include "page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <array>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "run_json.h"
#include "run_samples.h"
#include "svg_timeline.h"

namespace {

using fpd_log::AttemptEnd;
using fpd_log::EventKind;
using fpd_log::Outcome;
using fpd_log::Region;
using ToolRun = fpd_log::Run;  // testing::Test has a Run
using fpd_report::html_page;
using fpd_report::sample_begin;
using fpd_report::sample_region;
using fpd_report::sample_run;
using fpd_report::svg_timeline;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr fpd_log::Time second = 1'000'000;

const std::vector<std::string> &hostile_texts() {
    static const std::vector<std::string> texts = {
        "</script><img src=x onerror=alert(1)>",
        "\"'><svg onload=alert(1)>",
        "]]><x>",
        "<!-- &amp; &bogus; -->",
        std::string("\x01\x07\x1b[31m\x7f\x00\xff\xfe", 11),
        "\xef\xbf\xbe\xef\xbf\xbf",
        "\xe2\x80\xae"
        "reversed",
        std::string(5000, 'x'),
        "",
    };
    return texts;
}

std::string between(const std::string &text, std::string_view begin, std::string_view end) {
    const std::size_t from = text.find(begin);
    if (from == std::string::npos) return "";
    const std::size_t to = text.find(end, from + begin.size());
    return text.substr(from + begin.size(), to - from - begin.size());
}

std::string document_in(const std::string &page) {
    return between(page, "<script type=\"application/json\" id=\"document\">", "</script>");
}

std::string digest_in_base64(const std::string &text) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data());
    std::array<unsigned char, 4 * ((SHA256_DIGEST_LENGTH + 2) / 3) + 1> encoded{};
    const int length = EVP_EncodeBlock(encoded.data(), digest.data(), static_cast<int>(digest.size()));
    return {reinterpret_cast<const char *>(encoded.data()), static_cast<std::size_t>(length)};
}

/// An XML document that is well-formed, or null.
struct Xml {
    explicit Xml(const std::string &text)
        : document(xmlReadMemory(text.data(), static_cast<int>(text.size()), "timeline.svg", nullptr,
                                 XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
                   &xmlFreeDoc) {}

    /// The text of what `path` finds, in which "svg:" stands for the namespace.
    std::vector<std::string> find(const std::string &path) const {
        const std::unique_ptr<xmlXPathContext, decltype(&xmlXPathFreeContext)> context(
            xmlXPathNewContext(document.get()), &xmlXPathFreeContext);
        xmlXPathRegisterNs(context.get(), BAD_CAST "svg", BAD_CAST "http://www.w3.org/2000/svg");
        const std::unique_ptr<xmlXPathObject, decltype(&xmlXPathFreeObject)> found(
            xmlXPathEval(BAD_CAST path.c_str(), context.get()), &xmlXPathFreeObject);
        std::vector<std::string> texts;
        for (int i = 0; found && found->nodesetval && i < found->nodesetval->nodeNr; ++i) {
            xmlChar *content = xmlNodeGetContent(found->nodesetval->nodeTab[i]);
            texts.emplace_back(reinterpret_cast<const char *>(content));
            xmlFree(content);
        }
        return texts;
    }

    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> document;
};

Region queued(Region region, int queue) {
    region.queue = queue;
    return region;
}

/// A region with `text` wherever a log may put one.
Region region_full_of(const std::string &text) {
    Region region = queued(sample_region(text, Outcome::failed, text), 0);
    region.running = region.programmed = region.packaged = region.image = region.md5 = region.state = text;
    region.dependency = region.verdict = text;
    region.transitions = {{sample_begin, text, text, 1}};
    return region;
}

ToolRun run_full_of(const std::string &text) {
    ToolRun run = sample_run({region_full_of(text), sample_region(text, Outcome::refused, text)});
    run.source = run.stage = run.failure = text;
    run.events = {{sample_begin, EventKind::led, text}, {sample_begin + second, EventKind::activation, text}};
    run.errors = {{1, sample_begin, 3, 3, fpd_log::Level::error, text, text, text, text}};
    run.unknown = {text};
    return run;
}

std::string document_of(const ToolRun &run) {
    return fpd_report::json_document({fpd_report::run_json(run)}).dump();
}

TEST(Page, HoldsTheDocumentAsItIs) {
    const std::string document = document_of(sample_run({sample_region("IoFpga", Outcome::upgraded)}));
    EXPECT_EQ(nlohmann::json::parse(document_in(html_page(document))), nlohmann::json::parse(document));
}

TEST(Page, HostileTextsCannotEndTheScriptElementThatHoldsThem) {
    for (const std::string &text : hostile_texts()) {
        const std::string document = document_of(run_full_of(text));
        const std::string inside = document_in(html_page(document));
        EXPECT_THAT(inside, Not(HasSubstr("<"))) << text;
        EXPECT_EQ(nlohmann::json::parse(inside), nlohmann::json::parse(document)) << text;
    }
}

TEST(Page, PolicyAllowsItsOwnScriptAndStyleAlone) {
    const std::string page = html_page("{}");
    EXPECT_EQ(between(page, "http-equiv=\"Content-Security-Policy\" content=\"", "\""),
              "default-src 'none'; script-src 'sha256-" +
                  digest_in_base64(between(page, "<script type=\"module\">", "</script>")) + "'; style-src 'sha256-" +
                  digest_in_base64(between(page, "<style>", "</style>")) + "'; base-uri 'none'; form-action 'none'");
}

TEST(Page, NeedsNothingFromElsewhereAndMakesNoMarkupOfTexts) {
    const std::string page = html_page("{}");
    for (const char *const unwanted : {"http:", "https:", "src=", "@import", "url(", "innerHTML", "outerHTML",
                                       "insertAdjacentHTML", "document.write", "eval(", "Function("})
        EXPECT_THAT(page, Not(HasSubstr(unwanted)));
    EXPECT_THAT(page, Not(HasSubstr("@document@")));
}

TEST(Page, TakesForNotWellWhatTheReportDoes) {
    const std::string not_well = between(html_page("{}"), "const notWell = new Set([", "]);");
    for (int i = 0; i <= static_cast<int>(Outcome::unfinished); ++i) {
        const auto outcome = static_cast<Outcome>(i);
        const bool found = not_well.find("'" + std::string(outcome_key(outcome)) + "'") != std::string::npos;
        EXPECT_EQ(found, !is_well(outcome)) << outcome_key(outcome);
    }
}

std::set<std::string> keys_of(const nlohmann::json &object) {
    std::set<std::string> keys;
    for (const auto &[key, value] : object.items()) keys.insert(key);
    return keys;
}

TEST(Page, DocumentsMadeUpForTheBrowserHaveTheKeysOfRealOnes) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> made(popen("python3 " MADE_UP_DOCUMENTS " life", "r"),
                                                                &pclose);
    ASSERT_TRUE(made);
    const nlohmann::json life = nlohmann::json::parse(made.get());
    const nlohmann::json real = nlohmann::json::parse(document_of(run_full_of("x")));
    EXPECT_EQ(keys_of(life), keys_of(real));
    const nlohmann::json &run = real["runs"][0], &region = run["regions"][0];
    EXPECT_EQ(life["runs"].size(), 5U);
    for (const nlohmann::json &made_run : life["runs"]) {
        EXPECT_EQ(keys_of(made_run), keys_of(run));
        for (const nlohmann::json &event : made_run["events"]) EXPECT_EQ(keys_of(event), keys_of(run["events"][0]));
        for (const nlohmann::json &made_region : made_run["regions"]) {
            EXPECT_EQ(keys_of(made_region), keys_of(region));
            for (const char *const list : {"attempts", "transitions", "lines"})
                for (const nlohmann::json &one : made_region[list]) EXPECT_EQ(keys_of(one), keys_of(region[list][0]));
        }
    }
}

TEST(SvgTimeline, HasALanePerQueueAndABarPerRegionInTheOrderOfTheirWork) {
    Region late = queued(sample_region("Late", Outcome::upgraded), 1);
    late.attempts.front().begin += 5 * second;
    const ToolRun run =
        sample_run({late, queued(sample_region("Early", Outcome::upgraded), 1),
                    queued(sample_region("First", Outcome::upgraded), 0), sample_region("Idle", Outcome::current)});
    const Xml svg(svg_timeline({run}));
    ASSERT_TRUE(svg.document);
    EXPECT_THAT(svg.find("//svg:g[@class='queue']/svg:text[@class='lane']"),
                ElementsAre("Sequence queue 0: 1 region", "Sequence queue 1: 2 regions"));
    EXPECT_THAT(svg.find("//svg:g[@class='queue'][1]//svg:text[@class='name']"), ElementsAre("First"));
    EXPECT_THAT(svg.find("//svg:g[@class='queue'][2]//svg:text[@class='name']"), ElementsAre("Early", "Late"));
    EXPECT_THAT(svg.find("//svg:text[starts-with(., 'Not queued')]"), ElementsAre("Not queued: 1 region"));
}

TEST(SvgTimeline, AttemptsAreDrawnByHowTheyEndedAndTheSecondOneApart) {
    Region region = queued(sample_region("SyncFpga", Outcome::upgraded_at_second_attempt), 0);
    region.attempts = {{sample_begin, sample_begin + 20 * second, 40, AttemptEnd::stuck, "stuck"},
                       {sample_begin + 21 * second, sample_begin + 60 * second, 100, AttemptEnd::done, ""}};
    const Xml svg(svg_timeline({sample_run({region})}));
    ASSERT_TRUE(svg.document);
    EXPECT_THAT(svg.find("//svg:g[@class='bar']/svg:rect[@class]/@class"), ElementsAre("stuck", "second"));
    EXPECT_THAT(svg.find("//svg:g[@class='bar']/svg:text[@class='sign']"), ElementsAre("⊘"));
    // 100 s are 700 pixels: 20 s are 140, 39 s are 273.
    EXPECT_THAT(svg.find("//svg:g[@class='bar']/svg:rect[@class]/@x"), ElementsAre("200", "347"));
    EXPECT_THAT(svg.find("//svg:g[@class='bar']/svg:rect[@class]/@width"), ElementsAre("140", "273"));
}

TEST(SvgTimeline, TicksCloserThanASecondHaveTenths) {
    fpd_log::Run run = sample_run({sample_region("A", fpd_log::Outcome::upgraded, "", "2.0.0")});
    run.regions[0].queue = 0;
    run.regions[0].attempts[0].end = sample_begin + 3'200'000;
    run.end = sample_begin + 3'300'000;
    const std::string svg = svg_timeline({run});
    for (const char *tick : {">+500 ms<", ">+1 s<", ">+1.5 s<", ">+3 s<"}) EXPECT_THAT(svg, HasSubstr(tick));
}

TEST(SvgTimeline, EventsAndTheReloadAreMarked) {
    ToolRun run = sample_run({queued(sample_region("IoFpga", Outcome::upgraded), 0)});
    run.events = {{sample_begin, EventKind::run_start, ""},
                  {sample_begin + second, EventKind::led, "blink green"},
                  {sample_begin + 2 * second, EventKind::watchdog_punch, ""},
                  {sample_begin + 90 * second, EventKind::activation, "2"}};
    const Xml svg(svg_timeline({run}));
    ASSERT_TRUE(svg.document);
    EXPECT_THAT(svg.find("//svg:g[not(@class)]/svg:text[@class='sign']"), ElementsAre("▶", "R", "L", "W"));
    EXPECT_THAT(svg.find("//svg:line[@class='reload']/@x1"), ElementsAre("830"));
}

TEST(SvgTimeline, HostileTextsStayTextsOfAWellFormedDocument) {
    for (const std::string &text : hostile_texts()) {
        const Xml svg(svg_timeline({run_full_of(text)}));
        ASSERT_TRUE(svg.document) << text;
        EXPECT_TRUE(
            svg.find("//svg:script | //svg:svg//svg:svg | //svg:img | //svg:x | //@onload | //@onerror").empty())
            << text;
    }
}

TEST(SvgTimeline, RegionsOverTheLimitAreCounted) {
    std::vector<Region> regions(205, queued(sample_region("IoFpga", Outcome::upgraded), 3));
    const Xml svg(svg_timeline({sample_run(regions)}));
    ASSERT_TRUE(svg.document);
    EXPECT_EQ(svg.find("//svg:g[@class='bar']").size(), 200U);
    EXPECT_THAT(svg.find("//svg:text[starts-with(., 'and ')]"), ElementsAre("and 5 regions not drawn"));
}

TEST(SvgTimeline, RunsWithoutTimesRegionsOrAnythingAreDrawn) {
    ToolRun timeless = sample_run({queued(sample_region("IoFpga", Outcome::unfinished), 0)});
    timeless.begin = timeless.end = 0;
    const std::vector<std::vector<ToolRun>> cases = {{}, {ToolRun{}}, {sample_run({})}, {timeless}};
    for (const std::vector<ToolRun> &runs : cases) {
        const Xml svg(svg_timeline(runs));
        ASSERT_TRUE(svg.document);
        EXPECT_EQ(svg.find("/svg:svg/svg:title").size(), 1U);
        EXPECT_EQ(svg.find("/svg:svg/svg:desc").size(), 1U);
        EXPECT_THAT(svg.find("//@x[not(number(.) >= 0 and number(.) <= 1200)]"), ElementsAre());
    }
}

}  // namespace
