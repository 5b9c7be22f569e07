#include <gtest/gtest.h>

#include "QmDriverLoader.h"

namespace {

TEST(DriverLoader, NothingLoadedGivesNoDriver) {
  QmDriverLoader loader;
  EXPECT_FALSE(loader.IsLoaded());
  EXPECT_EQ(loader.GetDriverInstance(), nullptr);
  loader.ReleaseDriverInstance(nullptr);
}

TEST(DriverLoader, MissingFileIsNamed) {
  QmDriverLoader loader;
  const std::string path = "/nonexistent/dir/libnothing.so";
  EXPECT_FALSE(loader.Load(path));
  EXPECT_FALSE(loader.IsLoaded());
  EXPECT_NE(loader.GetError().find("Cannot load driver library '" + path + "'"), std::string::npos)
      << loader.GetError();
  EXPECT_EQ(loader.GetDriverInstance(), nullptr);
}

TEST(DriverLoader, MissingEntryPointIsNamed) {
  QmDriverLoader loader;
  EXPECT_FALSE(loader.Load(QM_HALF_PLUGIN_PATH));
  EXPECT_FALSE(loader.IsLoaded());
  EXPECT_NE(loader.GetError().find("does not export 'ReleaseDriverInstance'"), std::string::npos)
      << loader.GetError();
  EXPECT_EQ(loader.GetDriverInstance(), nullptr);
}

}  // namespace
