// A scripted CDB behind the cdb_* reads. The rest of the ConfD client library the daemon calls
// (keypath printing, last errors, data-provider replies) is the element's own.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/confd_lib.h"

namespace fake {

class Cdb {
 public:
  // Values by full path (as the daemon formats it).
  void SetU32(const std::string& path, uint32_t value);
  void SetStr(const std::string& path, const std::string& value);
  void SetIpv4(const std::string& path, const char* address);
  void SetIpv4AndPlen(const std::string& path, const char* address, uint8_t prefixLen);
  void SetList(const std::string& path, const std::vector<std::string>& names);
  // Reads of `path` fail with `error` as confd_lasterr(); the path still "exists".
  void FailRead(const std::string& path, const std::string& error);
  // Answers of cdb_num_instances, one per call; once used up, the number of rules added.
  void ScriptInstances(std::vector<int> answers) { instanceAnswers_ = std::move(answers); }
  // A rule at a list position, by its leaves (relative paths such as "/rule/priority").
  std::string Prefix(int position) const;
  void SetRuleCount(int count) { ruleCount_ = count; }

  // How often each read was made: "<function> <path>".
  int Reads(const std::string& function, const std::string& path) const;
  int InstanceQueries() const { return instanceQueries_; }

  // Used by the cdb_* functions.
  struct Stored {
    confd_value_t value{};
    std::string text;               // C_BUF
    std::vector<std::string> list;  // leaf-list
    bool isList = false;
    std::string error;  // non-empty: reads fail
  };
  const Stored* Find(const std::string& path) const;
  void CountRead(const std::string& function, const std::string& path);
  int NextInstanceAnswer();

 private:
  std::map<std::string, Stored> values_;
  std::map<std::string, int> reads_;
  std::vector<int> instanceAnswers_;
  size_t instanceAnswerPos_ = 0;
  int instanceQueries_ = 0;
  int ruleCount_ = 0;
};

Cdb& TheCdb();
void ResetCdb();

}  // namespace fake
