// A host that is compiled with the debug mode of libstdc++, where containers are laid out in
// another way than in the library: nothing of the library's may be read in the host's own code.

#ifndef _GLIBCXX_DEBUG
#error "compile with -D_GLIBCXX_DEBUG"
#endif

#include "../support/Exercise.h"
#include "../support/Process.h"

using namespace Metrics;
using namespace Metrics::test;

namespace {

void SeesWhatTheLibraryMade() {
    const TemporaryFile file;
    const Session session;
    MetricsRawClient client;
    std::string seen;
    VERIFY(Open(client, file.path) && Consume(true, [&seen](const MetricsEvent& event) {
               if (event.eventType == MetricsEventType::Attribute)
                   seen += *event.param1.text + ' ';
           }));
    const auto stack = Manager().GetThreadContext();
    {
        Context outer(0, Context::Create(true));
        VERIFY(stack->GetCurrentContext() == &outer);
        Context inner(outer.GetContextId(), Context::Create(false));
        VERIFY(stack->GetCurrentContext() == &inner);
        Attribute("a name that is too long to be stored inside of a string", 1);
    }
    VERIFY(stack->GetCurrentContext() == Manager().GetCurrentThreadContext());
    VERIFY(MetricsThreadContext().GetCurrentContext() == nullptr);
    VERIFY(seen == "a name that is too long to be stored inside of a string ");
    UseEverything("everything");
    VERIFY(client.Close(forever));
    VERIFY(ReadFile(file.path).find(",8,a name that is too long") != std::string::npos);
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv, {{"SeesWhatTheLibraryMade", SeesWhatTheLibraryMade}});
}
