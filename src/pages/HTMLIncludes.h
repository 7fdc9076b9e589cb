#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/Reporter.h"
#include "pages/ScriptObjects.h"
#include "platform/ScriptControl.h"
#include "settings/Hs.h"

namespace tavrel {

// The host of the framework's script pages. Nothing is created until the first page request with script
// pages on: HTMLInit creates the script control with "hs" and the prelude, HTMLBuild turns the
// framework's include pages into script code, and the code then stays loaded for the rest of the run.
class HTMLIncludes {
 public:
  using ControlFactory =
      std::function<std::unique_ptr<platform::ScriptControl>(const std::string& language, long timeoutMs)>;

  HTMLIncludes(const std::filesystem::path& home, Hs& hs, Reporter& reporter,
               ControlFactory createControl = platform::CreateScriptControl);

  // Each of these reports its own failure ("HTMLInit: " and so on, with the error's description) and
  // returns normally.
  void HTMLInit();
  void HTMLBuild();
  // Turns one page of the HTML folder into script code and adds it to control, after the files its
  // include directives name. A missing file adds nothing; a name outside the HTML and Scripts folders
  // or an include cycle is refused with a log line.
  void AccumulateHTMLReferences(std::string_view fileName, platform::ScriptControl& control);
  // The same for a file of the Scripts folder, whose text is script code as it stands.
  void AccumulateReferences(std::string_view fileName, platform::ScriptControl& control);

  // Runs a routine of the loaded code; throws ScriptError when it fails or there is no control.
  platform::ScriptValue Run(const std::string& routine, const std::vector<platform::ScriptValue>& args = {});
  // True once HTMLBuild has loaded the include pages.
  bool ScriptInitialised() const { return scriptInitialised_; }

 private:
  enum class Folder { HTML, Scripts };
  void Accumulate(Folder folder, std::string_view fileName, platform::ScriptControl& control);

  std::filesystem::path htmlFolder_;
  std::filesystem::path scriptsFolder_;
  Hs& hs_;
  Reporter& reporter_;
  ControlFactory createControl_;
  std::shared_ptr<HsObject> hsObject_;
  std::unique_ptr<platform::ScriptControl> control_;
  bool scriptInitialised_ = false;
  // The files being loaded, outermost first: an include of one of them would never end.
  std::vector<std::filesystem::path> loading_;
};

// A framework page as script code: "<%" and "%>" removed, "<!--" made a comment mark ("'"), and
// "Response.Write" in any letter case made "fsg.Add" (the pages write into a string builder).
std::string PageToScript(std::string_view page);

// Follows the include directives of a file's code in order, calling include with each named file ("/"
// made "\", blanks trimmed; fromScripts when it named "..\Scripts", which is then taken out), and
// returns the code with every directive, from "#include" to its closing quote, cut out. A directive
// without a pair of quotes after it ends the search.
std::string CutIncludes(std::string code,
                        const std::function<void(const std::string& name, bool fromScripts)>& include);

// A routine's result as text, and as a truth value the way the script runtime converts it (Empty is
// False; numbers and "True"/"False" in any case convert; other text fails with "Type mismatch").
std::string ScriptText(const platform::ScriptValue& value);
bool ScriptBool(const platform::ScriptValue& value);

}  // namespace tavrel
