// Raw texts, good or not, read as each of the types that the JSON reader knows.

#include "fuzz/extraction.hpp"

namespace {

void run(std::string_view text) {
    fuzz::Json json;
    auto const verdict = fuzz::readReference(text, json);
    if (text.empty() || (verdict == fuzz::Verdict::GOOD && json.raw.size() == text.size())) {
        fuzz::checkExtraction(text, json);
        return;
    }
    fuzz::Json nothing; // a kind from which no value can be read
    nothing.kind = fuzz::Json::Kind::LITERAL;
    fuzz::checkExtraction(text, nothing);
}

fuzz::Target const JSON_VALUES("json_values", run);

} // namespace
