#include "support/rivet/RivetVia.h"

#include <sstream>

#include "support/rivet/RivetFatal.h"

namespace vesp::rivet {

std::string RivetViaLink::description() const {
  std::ostringstream out;
  if (kind == Kind::impetus)
    out << "impetus " << RivetValue(name).description() << " (";
  else
    out << "fork (";
  out << fileName << ", " << functionName << ", line " << lineNumber << ")";
  if (args) out << " args " << args->description();
  if (invokerSite)
    out << " invoked from (" << invokerSite->fileName << ", " << invokerSite->functionName << ", line "
        << invokerSite->lineNumber << ")";
  return out.str();
}

std::shared_ptr<RivetJunction> RivetVia::fork(std::optional<RivetArgs> args, std::optional<RivetCodeSite> invokerSite,
                                              std::string forkSiteFileName, std::string forkSiteFunctionName,
                                              std::uint64_t forkSiteLineNumber) const {
  return std::make_shared<RivetJunction>(retain(), std::move(args), std::move(invokerSite),
                                         std::move(forkSiteFileName), std::move(forkSiteFunctionName),
                                         forkSiteLineNumber);
}

std::vector<RivetViaLink> RivetVia::provenance() const {
  std::vector<RivetViaLink> links;
  for (const RivetVia* via = this; via != nullptr; via = via->parent()) links.push_back(via->link());
  return links;
}

std::string RivetVia::description() const {
  std::string out;
  for (const RivetViaLink& link : provenance()) {
    if (!out.empty()) out += "\n  from ";
    out += link.description();
  }
  return out;
}

RivetJunction::RivetJunction(std::shared_ptr<const RivetVia> parent, std::optional<RivetArgs> args,
                             std::optional<RivetCodeSite> invokerSite, std::string fileName, std::string functionName,
                             std::uint64_t lineNumber)
    : parent_(std::move(parent)),
      args_(std::move(args)),
      invokerSite_(std::move(invokerSite)),
      fileName_(std::move(fileName)),
      functionName_(std::move(functionName)),
      lineNumber_(lineNumber) {
  if (!parent_) fatalError("RivetJunction made without a parent via");
}

RivetViaLink RivetJunction::link() const {
  return RivetViaLink{RivetViaLink::Kind::junction, "", args_, fileName_, functionName_, lineNumber_, invokerSite_};
}

RivetImpetus::RivetImpetus(std::string name, std::optional<RivetArgs> args, std::string fileName,
                           std::string functionName, std::uint64_t lineNumber)
    : name_(std::move(name)),
      args_(std::move(args)),
      fileName_(std::move(fileName)),
      functionName_(std::move(functionName)),
      lineNumber_(lineNumber) {}

RivetViaLink RivetImpetus::link() const {
  return RivetViaLink{RivetViaLink::Kind::impetus, name_, args_, fileName_, functionName_, lineNumber_, std::nullopt};
}

std::ostream& operator<<(std::ostream& out, const RivetVia& via) { return out << via.description(); }

}  // namespace vesp::rivet
