// Call provenance. Every operation that logs or starts further work takes a via, and passes on a
// fork of it (a RivetJunction) or, where no caller exists, a fresh RivetImpetus. A via can list and
// render its chain of forks back to the impetus that started it.
//
// Thread safety: vias are immutable once built and may be shared across threads.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/rivet/RivetValue.h"

namespace vesp::rivet {

class RivetJunction;

// A code site: file, function and line.
struct RivetCodeSite {
  std::string fileName;
  std::string functionName;
  std::uint64_t lineNumber = 0;

  friend bool operator==(const RivetCodeSite&, const RivetCodeSite&) = default;
};

// One link of a provenance chain, as a plain value for logs and tests.
struct RivetViaLink {
  enum class Kind { impetus, junction };
  Kind kind = Kind::junction;
  std::string name;  // the impetus's name; empty for a junction
  std::optional<RivetArgs> args;
  std::string fileName;
  std::string functionName;
  std::uint64_t lineNumber = 0;
  std::optional<RivetCodeSite> invokerSite;

  // impetus "name" (file, function, line N) args [...] / fork (file, function, line N) args [...]
  std::string description() const;

  friend bool operator==(const RivetViaLink&, const RivetViaLink&) = default;
};

class RivetVia {
 public:
  virtual ~RivetVia() = default;

  // This via's own link.
  virtual RivetViaLink link() const = 0;
  // The via this one was forked from; null for an impetus.
  virtual const RivetVia* parent() const = 0;
  // A shared handle on this via that may outlive the reference it was called on: the junction
  // itself, or a copy of a value via.
  virtual std::shared_ptr<const RivetVia> retain() const = 0;

  // A junction recording this via as its parent, to be passed to every inner call of the forking
  // operation.
  std::shared_ptr<RivetJunction> fork(std::optional<RivetArgs> args, std::optional<RivetCodeSite> invokerSite,
                                      std::string forkSiteFileName, std::string forkSiteFunctionName,
                                      std::uint64_t forkSiteLineNumber) const;

  // The chain from this via back to its impetus, this via first.
  std::vector<RivetViaLink> provenance() const;
  // The chain as one text, one line per link, this via first.
  std::string description() const;
};

// A via forked from another; the via of all inner calls of the operation that forked it.
class RivetJunction final : public RivetVia, public std::enable_shared_from_this<RivetJunction> {
 public:
  // REQUIRES: parent is not null. Made by RivetVia::fork.
  RivetJunction(std::shared_ptr<const RivetVia> parent, std::optional<RivetArgs> args,
                std::optional<RivetCodeSite> invokerSite, std::string fileName, std::string functionName,
                std::uint64_t lineNumber);

  RivetViaLink link() const override;
  const RivetVia* parent() const override { return parent_.get(); }
  std::shared_ptr<const RivetVia> retain() const override { return shared_from_this(); }

  const std::optional<RivetArgs>& args() const { return args_; }
  const std::optional<RivetCodeSite>& invokerSite() const { return invokerSite_; }
  const std::string& fileName() const { return fileName_; }
  const std::string& functionName() const { return functionName_; }
  std::uint64_t lineNumber() const { return lineNumber_; }

 private:
  std::shared_ptr<const RivetVia> parent_;
  std::optional<RivetArgs> args_;
  std::optional<RivetCodeSite> invokerSite_;
  std::string fileName_;
  std::string functionName_;
  std::uint64_t lineNumber_;
};

// The start of a provenance chain where no caller exists: a platform notification, the completion
// of a platform request, a screen's callback.
class RivetImpetus final : public RivetVia {
 public:
  RivetImpetus(std::string name, std::optional<RivetArgs> args, std::string fileName, std::string functionName,
               std::uint64_t lineNumber);

  RivetViaLink link() const override;
  const RivetVia* parent() const override { return nullptr; }
  std::shared_ptr<const RivetVia> retain() const override { return std::make_shared<RivetImpetus>(*this); }

  const std::string& name() const { return name_; }
  const std::optional<RivetArgs>& args() const { return args_; }
  const std::string& fileName() const { return fileName_; }
  const std::string& functionName() const { return functionName_; }
  std::uint64_t lineNumber() const { return lineNumber_; }

  friend bool operator==(const RivetImpetus& lhs, const RivetImpetus& rhs) {
    return lhs.name_ == rhs.name_ && lhs.args_ == rhs.args_ && lhs.fileName_ == rhs.fileName_ &&
           lhs.functionName_ == rhs.functionName_ && lhs.lineNumber_ == rhs.lineNumber_;
  }

 private:
  std::string name_;
  std::optional<RivetArgs> args_;
  std::string fileName_;
  std::string functionName_;
  std::uint64_t lineNumber_;
};

std::ostream& operator<<(std::ostream& out, const RivetVia& via);

}  // namespace vesp::rivet
