// Helper of the tests that go through the host library: smtp.so, and
// uue.so beside it, loaded as smtpfm loads them, with a format manager of
// each. The test owns it; the managers end before the modules unload.
#ifndef SMTPFM_HOST_TEST_PLUGINS_H_
#define SMTPFM_HOST_TEST_PLUGINS_H_

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/host.h"

struct Test_plugins {
  // Loads smtp.so from `module_path` under `given` options; throws with the
  // loader's message when the modules or their managers fail.
  explicit Test_plugins(const std::string& module_path, Host_options given = {}) : options(std::move(given)) {
    options.module_path = module_path;
    std::string error;
    plugins = Host_plugins::load(options, error);
    if (plugins == nullptr || !plugins->create_managers(options, managers, error))
      throw std::runtime_error(error);
  }
  // The tree of `bytes`, walked by every manager as smtpfm walks it.
  std::unique_ptr<Message_tree> open(std::string bytes) const {
    return std::make_unique<Message_tree>(managers, std::move(bytes), options);
  }

  Host_options options;
  std::unique_ptr<Host_plugins> plugins;
  Format_managers managers;
};

#endif  // SMTPFM_HOST_TEST_PLUGINS_H_
