// brenthaven/router/routetable.h - the lines of the routing table, and the one that decides for a host.
#pragma once
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// "pattern:target" as the administrator wrote it; the last colon separates.
struct SRouteLine {
  SString pattern;  // "*" is any text and "." a dot; anything else that means something to an expression does so here
  SString target;   // a host; with "*" in front, what is put behind the host asked for; "*" alone: no change
  SString Text() const { return pattern + ":" + target; }
  SString HostFor(SString const &host) const;
};

// A table in memory. The first line that matches the whole host, in any case, decides. Lines without a wildcard and
// those whose only "*" stands at one end are found by hash, whatever their number; each other line costs some tens of
// nanoseconds as long as no earlier line has matched.
class SRouteTable {
public:
  explicit SRouteTable(SStringList const &lines);
  SRouteTable(SRouteTable const &) = delete;
  SRouteTable &operator=(SRouteTable const &) = delete;

  // Null when no line matches. The line belongs to the table.
  SRouteLine const *Find(SString const &host) const;
  // Target by pattern as written, for the compiled form, which knows no wildcards. Of two lines with one pattern the
  // first counts, as it does here.
  SNamedStringList Targets() const;
  // The lines that do nothing, each with the reason behind a blank: not of the form, or no expression.
  static SStringList Faults(SStringList const &lines);

private:
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  using Places = std::unordered_map<std::string, int, TextHash, std::equal_to<>>;  // text to the first line with it
  struct Ends {  // lines that ask for one end of the host
    Places places;
    size_t longest = 0;  // text among them: nothing longer is worth a look
  };
  struct Pattern {  // a line that no hash finds
    int line;
    std::vector<std::string> pieces;         // the text between the stars, in lower case
    std::unique_ptr<SPerlRegex> expression;  // for what only an expression says; pieces is then the text at its end
    bool Matches(std::string_view lowerHost, SString const &host) const;
  };
  enum class Side { kFront, kBack };

  void _Place(int line);
  static void _PlaceEnd(Ends &ends, std::string const &text, int line);
  static void _FindEnd(Ends const &ends, std::string_view host, Side side, int &best);

  std::vector<SRouteLine> _lines;  // those of the form, in order
  Places _exact;
  Ends _fronts;  // what stands before a "*" at the end
  Ends _backs;   // what follows a "*" in front
  std::vector<Pattern> _others;
};
