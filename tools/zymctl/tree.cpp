#include "arguments.hpp"
#include "entity_tree.hpp"

namespace {

class Tree final : public Command {
    void addTo(Arguments& arguments) override {
        arguments.required(base_, "BASE",
                           "the topic on which the links to the entities are published");
        arguments.flag(watch_, "--watch", "show each change, until Ctrl-C");
    }

    ExitCode run(Context& context) override {
        Connection connection(context);
        EntityTree tree(context, connection.client, base_);
        bool const complete = tree.waitUntilComplete(context.settings.deadline());
        show(context.console, tree);
        while (watch_ && !context.interruption.requested()) {
            tree.waitForChange();
            if (!context.interruption.requested()) {
                show(context.console, tree);
            }
        }
        if (context.interruption.requested()) {
            return watch_ ? ExitCode::DONE : ExitCode::INTERRUPTED;
        }
        if (!complete) {
            throw CommandFailed(ExitCode::NO_ANSWER, tree.isEmpty()
                                                         ? "nothing is published on " + base_
                                                         : "links or identifications are missing");
        }
        return ExitCode::DONE;
    }

    void show(Console& console, EntityTree const& tree) const {
        if (console.json()) {
            console.print(tree.json());
            return;
        }
        std::string text = watch_ && console.isTerminal() ? "\033[H\033[2J" : "";
        for (auto const& line : tree.lines()) {
            text += line + '\n';
        }
        text.resize(text.size() - 1);
        console.print(text);
    }

    std::string base_;
    bool watch_ = false;
};

} // namespace

std::unique_ptr<Command> makeTree() {
    return std::make_unique<Tree>();
}
