#include "Load.h"

#include "ModelBuilder.h"
#include "Reader.h"

namespace Metrics::tools {

Model Load(const std::vector<std::string>& paths) {
    Model model;
    for (const std::string& path : paths) {
        const std::unique_ptr<Reader> reader = OpenCsv(path);
        ModelBuilder builder(model.names, path);
        EventBatch batch;
        while (reader->Read(batch))
            for (const Event& event : batch.events)
                builder.Add(event);
        model.runs.push_back(builder.Finish(reader->GetDamage()));
    }
    return model;
}

} // namespace Metrics::tools
