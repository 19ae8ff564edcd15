// Modules in archives as the agent finds them: its interpreter, search paths and loader, from nothing.
//
// Usage: RequireAgent FOLDER ARCHIVE[;ARCHIVE...] NAMES
//   FOLDER  where the executable is taken to be

#include <cstring>
#include <memory>

#include <wx/init.h>
#include <wx/mstream.h>

#include <lua.hpp>

#include <VelCore/Dom.h>
#include <VelCore/LuaInterpreter.h>
#include <VelCore/Utf8.h>

#include "programs/Measure.h"
#include "programs/Requires.h"

using namespace VelBench;

int main(int argc, char** argv)
{
    if (argc != 4)
        Die("usage: RequireAgent FOLDER ARCHIVE[;ARCHIVE...] NAMES");
    const wxInitializer framework;
    const std::unique_ptr<VelCore::CDom> dom(VelCore::CDom::New(nullptr, nullptr, nullptr, false));
    dom->Set("app.lua.zippath", argv[2]);
    std::unique_ptr<VelCore::CLuaInterpreter> interpreter;
    Measure([&] {
        interpreter = std::make_unique<VelCore::CLuaInterpreter>(true, L"bench", true);
        interpreter->SetPackagePaths(argv[1], "", "");
        dom->RegisterLoader(interpreter->L());
        PushLines(interpreter->L(), argv[3]);
        wxMemoryInputStream chunk(kRequireAll, std::strlen(kRequireAll));
        if (interpreter->RunScript(chunk, 1, 0, L"requires", nullptr) != 0)
            Die(VelCore::ToUtf8(interpreter->GetErrorInfo()));
    });
    return 0;
}
