// Typed values, listings and requests beside an event loop, with the real service.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"

#include <poll.h>

#include <clocale>
#include <cstdint>
#include <limits>
#include <optional>
#include <thread>

namespace kelconf::test {
namespace {

class Request : public ::testing::Test {
  protected:
    void SetUp() override {
        resetDevice(
            "<t><cam type='trunk'><a type='string'>1</a><b type='string'/></cam>"
            "<camera type='trunk'><a type='string'>2</a><b type='string'>3</b></camera></t>");
        service_.emplace();
        ASSERT_TRUE(service_->awaitReady());
    }
    std::optional<Daemon> service_;
    BusSession bus_;
};

// A number, or what the message says.
template <typename Value>
std::string read(BusSession& bus, kelbus_error (*get)(kelbus*, const char*, Value*, int)) {
    Value value{};
    const kelbus_error error = get(bus.get(), "cam.a", &value, kLimit);
    return error == KELBUS_OK ? ::testing::PrintToString(value) : bus.message();
}

TEST_F(Request, ReadsAndSetsTypes) {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    const std::string named = "\"cam.a\": the value ";
    const std::string no_whole = named + "is no whole number";
    const std::string no_number = named + "is no number";
    const std::string no_truth = named + "is neither 0 nor 1";
    const std::string too_large = named + "does not fit into 64 bits";
    struct Scene {
        std::string value, truth, whole, number;
    };
    const Scene scenes[] = {{"0", "false", "0", "0"},
                            {"1", "true", "1", "1"},
                            {"-007", no_truth, "-7", "-7"},
                            {"2.5", no_truth, no_whole, "2.5"},
                            {"25e-1", no_truth, no_whole, "2.5"},
                            {"2,5", no_truth, no_whole, no_number},
                            {"", no_truth, no_whole, no_number},
                            {" 1", no_truth, no_whole, no_number},
                            {"+1", no_truth, no_whole, no_number},
                            {"0x10", no_truth, no_whole, no_number},
                            {"inf", no_truth, no_whole, no_number},
                            {"nan", no_truth, no_whole, no_number},
                            {"true", no_truth, no_whole, no_number},
                            {"9223372036854775808", no_truth, too_large, "9.22337e+18"},
                            {"1e999", no_truth, no_whole, too_large}};
    for (const Scene& scene : scenes) {
        ASSERT_EQ(bus_.set("cam.a", scene.value), KELBUS_OK);
        EXPECT_EQ(read<bool>(bus_, kelbus_get_bool), scene.truth) << scene.value;
        EXPECT_EQ(read<std::int64_t>(bus_, kelbus_get_int64), scene.whole) << scene.value;
        EXPECT_EQ(read<double>(bus_, kelbus_get_double), scene.number) << scene.value;
    }
    double unknown = 7;
    EXPECT_EQ(kelbus_get_double(bus_.get(), "no", &unknown, kLimit), KELBUS_UNKNOWN_NAME);
    EXPECT_EQ(unknown, 7);

    EXPECT_EQ(kelbus_set_bool(bus_.get(), "cam.a", true, KELBUS_SET, kLimit), KELBUS_OK);
    EXPECT_EQ(bus_.value("cam.a"), "1");
    constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(kelbus_set_int64(bus_.get(), "cam.a", kLeast, KELBUS_SET, kLimit), KELBUS_OK);
    EXPECT_EQ(bus_.value("cam.a"), "-9223372036854775808");
    for (const double value : {0.1, -1e22, std::numeric_limits<double>::max(),
                               -std::numeric_limits<double>::min() / 3}) {
        double back = 0;
        ASSERT_EQ(kelbus_set_double(bus_.get(), "cam.a", value, KELBUS_SET, kLimit), KELBUS_OK);
        EXPECT_EQ(bus_.value("cam.a").find('e'), std::string::npos);
        ASSERT_EQ(kelbus_get_double(bus_.get(), "cam.a", &back, kLimit), KELBUS_OK);
        EXPECT_EQ(back, value);
    }
    for (const double value :
         {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_EQ(kelbus_set_double(bus_.get(), "cam.a", value, KELBUS_SET, kLimit),
                  KELBUS_BAD_ARGUMENT);
    }
}

TEST_F(Request, ListsByPrefix) {
    const Pairs all{{"cam.a", "1"}, {"cam.b", ""}, {"camera.a", "2"}, {"camera.b", "3"}};
    const std::pair<const char*, Pairs> scenes[] = {
        {"", all},         {"cam", all}, {"cam.", {all[0], all[1]}}, {"camera.a", {all[2]}},
        {"camera.b.", {}}, {"no", {}}};
    for (const auto& [prefix, listed] : scenes) {
        kelbus_values* values = nullptr;
        EXPECT_EQ(kelbus_list(bus_.get(), prefix, &values, kLimit), KELBUS_OK);
        EXPECT_EQ(BusSession::taken(values), listed) << prefix;
    }
    kelbus_values* values = nullptr;
    EXPECT_EQ(kelbus_list(bus_.get(), nullptr, &values, kLimit), KELBUS_BAD_ARGUMENT);
}

// As an event loop does it: a look, then the descriptor.
std::pair<kelbus_error, Pairs> finished(kelbus_request* request) {
    kelbus_values* values = nullptr;
    pollfd source{kelbus_request_fd(request), POLLIN, 0};
    kelbus_error error = KELBUS_TIMEOUT;
    while ((error = kelbus_request_finish(request, &values, 0)) == KELBUS_TIMEOUT) {
        if (poll(&source, 1, kLimit) != 1) {
            ADD_FAILURE() << "the descriptor is silent";
            return {error, {}};
        }
    }
    return {error, BusSession::taken(values)};
}

TEST_F(Request, FitsAnEventLoop) {
    using Answer = std::pair<kelbus_error, Pairs>;
    kelbus_request* requests[6] = {};
    const char* names[] = {"x", "cam.b", "y", "cam.a"};
    const kelbus_parameter known[] = {{"cam.b", "new"}};
    const kelbus_parameter partly[] = {{"camera.a", "new"}, {"z", ""}};
    ASSERT_EQ(kelbus_start_get(bus_.get(), names, 4, &requests[0]), KELBUS_OK);
    ASSERT_EQ(kelbus_start_get(bus_.get(), names + 3, 1, &requests[1]), KELBUS_OK);
    ASSERT_EQ(kelbus_start_list(bus_.get(), "camera.b", &requests[2]), KELBUS_OK);
    ASSERT_EQ(kelbus_start_list(bus_.get(), "", &requests[5]), KELBUS_OK);
    kelbus_request_cancel(requests[5]);
    EXPECT_EQ(bus_.value("cam.a"), "1") << "others may come between";
    EXPECT_EQ(finished(requests[2]), (Answer{KELBUS_OK, {{"camera.b", "3"}}}));
    EXPECT_EQ(finished(requests[1]), (Answer{KELBUS_OK, {{"cam.a", "1"}}}));
    EXPECT_EQ(finished(requests[0]),
              (Answer{KELBUS_UNKNOWN_NAME,
                      {{"x", kUnknown}, {"cam.b", ""}, {"y", kUnknown}, {"cam.a", "1"}}}));
    EXPECT_EQ(bus_.message(), "no parameter has the name \"x\"");
    ASSERT_EQ(kelbus_start_set(bus_.get(), known, 1, KELBUS_SET, &requests[3]), KELBUS_OK);
    ASSERT_EQ(kelbus_start_set(bus_.get(), partly, 2, KELBUS_SET_DIRECT, &requests[4]), KELBUS_OK);
    EXPECT_EQ(finished(requests[4]), (Answer{KELBUS_UNKNOWN_NAME, {}}));
    EXPECT_EQ(bus_.message(), "no parameter has the name \"z\"");
    EXPECT_EQ(finished(requests[3]), (Answer{KELBUS_OK, {}}));
    EXPECT_EQ(bus_.value("cam.b") + bus_.value("camera.a"), "newnew");

    ASSERT_EQ(kelbus_start_get(bus_.get(), names, 4, &requests[0]), KELBUS_OK);
    service_->signal(SIGSTOP);
    ASSERT_EQ(kelbus_start_list(bus_.get(), "", &requests[1]), KELBUS_OK);
    kelbus_values* values = nullptr;
    EXPECT_EQ(kelbus_request_finish(requests[1], &values, 10), KELBUS_TIMEOUT);
    std::thread killer{[&] {
        std::this_thread::sleep_for(
            std::chrono::milliseconds{50}); // while the descriptor is polled
        service_->killNow();
    }};
    EXPECT_EQ(finished(requests[1]), (Answer{KELBUS_NO_SERVICE, {}})) << "told by the descriptor";
    killer.join();
    kelbus_request_cancel(requests[0]);
    EXPECT_EQ(kelbus_start_list(bus_.get(), "", &requests[2]), KELBUS_NO_SERVICE);
    EXPECT_EQ(requests[2], nullptr);
}

TEST(Version, IsThatOfTheHeader) {
    EXPECT_EQ(std::string{kelbus_version()}, std::to_string(KELBUS_VERSION_MAJOR) + "." +
                                                 std::to_string(KELBUS_VERSION_MINOR) + "." +
                                                 std::to_string(KELBUS_VERSION_PATCH));
}

} // namespace
} // namespace kelconf::test
