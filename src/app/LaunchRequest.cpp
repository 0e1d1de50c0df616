#include "LaunchRequest.h"

namespace tavrel {

LaunchRequest LaunchRequest::fromArguments(const QStringList& arguments) {
    LaunchRequest request;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (argument == QStringLiteral("--action") && i + 1 < arguments.size()) {
            request.kind = Kind::action;
            request.action = arguments.at(++i);
            // The rest of the line is the action's parameter (add-note takes the note's text).
            if (i + 1 < arguments.size())
                request.parameters << arguments.at(++i);
            return request;
        }
        if (argument.startsWith(QStringLiteral("--action="))) {
            request.kind = Kind::action;
            request.action = argument.mid(int(qstrlen("--action=")));
            if (i + 1 < arguments.size())
                request.parameters << arguments.at(++i);
            return request;
        }
        if (argument.startsWith(u'-'))
            continue; // options of the desktop or of Qt that we do not use
        request.urls << QUrl(argument);
        request.links << argument;
    }
    if (!request.urls.isEmpty())
        request.kind = Kind::open;
    return request;
}

} // namespace tavrel
