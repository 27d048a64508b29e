// kelconf-init on a flash that is mounted read only.

#include "faults/init_runs.h"
#include "paths.h"
#include "support/records.h"

#include <gtest/gtest.h>

namespace kelconf::test {
namespace {

TEST(ReadOnly, EndsWellAndSaysWhy) {
    writeFile(paths::kNeutralTree, "<r><t type='trunk'><a type='int'>1</a></t></r>");
    ASSERT_THROW(writeFile(paths::kDefaultDb, ""), std::runtime_error) << "not read only";
    DeviceLog log;
    const InitRun run = runInit();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out + run.err, "");
    EXPECT_EQ(readFlash(), Flash{});
    EXPECT_EQ(sameInBothSinks(log.take()),
              (std::vector<std::string>{"0 default file missing\n", "0 Creating default database\n",
                                        "0 Can't open database: unable to open database file\n",
                                        "0 Done creating default DB\n", "2 database open error\n",
                                        "2 default database incomplete, not sealed\n"}));
}

} // namespace
} // namespace kelconf::test
