#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace tavrel::platform {

class ScriptObject;

// A date and time as scripts hold one (local time, to the second).
struct ScriptDate {
  std::chrono::local_seconds time;
  bool operator==(const ScriptDate&) const = default;
};

// A value handed to a script routine or returned from one: nothing (Empty), a truth value, a number, text
// (bytes in the system code page), a list of texts (a script array), an object of this program, or a date.
using ScriptValue = std::variant<std::monostate, bool, double, std::string, std::vector<std::string>,
                                 std::shared_ptr<ScriptObject>, ScriptDate>;

// A failure of the script control or of the script it ran: the error number and description it gave, and
// the line of the script's code where it happened (counted from 1 in the code added; 0 when not known).
struct ScriptError : std::runtime_error {
  ScriptError(long number, const std::string& description, long line = 0)
      : std::runtime_error(description), number(number), line(line) {}
  long number;
  long line;
};

// An object of this program that scripts call by member name (in any letter case). Arguments arrive as
// text, whatever the script passed. The member named "" is the object's default member.
class ScriptObject {
 public:
  virtual ~ScriptObject() = default;
  virtual const std::vector<std::string>& Members() const = 0;
  // member indexes Members(). Throws ScriptError (or any std::exception) to raise an error in the script.
  virtual ScriptValue Call(size_t member, const std::vector<std::string>& args) = 0;
  // The values "For Each" walks when the object is a collection; nothing for any other object.
  virtual std::optional<std::vector<ScriptValue>> Items() { return std::nullopt; }
};

// The platform's script control. Used from the program's one thread only.
class ScriptControl {
 public:
  virtual ~ScriptControl() = default;
  // Makes object reachable from scripts by name; with globalMembers its members are globals as well.
  virtual void AddObject(const std::string& name, std::shared_ptr<ScriptObject> object,
                         bool globalMembers) = 0;
  // Adds code to the script's global module; throws ScriptError on a syntax error.
  virtual void AddCode(const std::string& code) = 0;
  // Runs a Sub or Function by name; throws ScriptError when the routine fails or does not exist.
  virtual ScriptValue Run(const std::string& routine, const std::vector<ScriptValue>& args) = 0;
};

// Creates a script control for the given language (on Windows its script engine, hosted by this program,
// which shows no user interface) with the time-out in milliseconds (-1 or 0: none), after which a running
// script is stopped with an error. Throws ScriptError when it cannot; outside Windows it never can (429).
std::unique_ptr<ScriptControl> CreateScriptControl(const std::string& language, long timeoutMs);

}  // namespace tavrel::platform
