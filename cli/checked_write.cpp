#include "checked_write.h"

#include <iostream>

#include <configmanager/configmanager.h>

#include "context.h"

namespace cmctl {

void WritePlan::add(size_t number, const std::string& name, const std::string& text) {
    const VarInfo* v = findVar(name);
    if (v == nullptr) return refuse(number, unknownVariable(name));
    add(number, *v, text);
}

void WritePlan::add(size_t number, const VarInfo& v, const std::string& text) {
    try {
        items_.push_back({&v, text, parseValue(v, text)});
    } catch (const Failure& e) {
        refuse(number, e.what());
    }
}

void WritePlan::refuse(size_t number, const std::string& why) {
    problems_.push_back(source_ + ":" + std::to_string(number) + ": " + why);
}

void WritePlan::requireClean() const {
    if (problems_.empty()) return;
    for (const std::string& p : problems_) std::cerr << "cmctl: " << p << "\n";
    throw Failure(std::to_string(problems_.size()) + " bad " + unit_ + (problems_.size() == 1 ? "" : "s") + " in " +
                  source_ + ": nothing written");
}

void requireNoDownload() {
    // The library drops a plain set during a profile download and calls it
    // a success; the tool says so instead.
    const VarInfo flagVar = varInfo(CM_FLAG);
    if (readValue(flagVar).bytes[0] == CM_FLAG_PROFILE_DOWNLOAD)
        throw Failure("nothing set: a profile download is in progress (use --force to write all the same)");
}

void writeValue(const VarInfo& v, const std::string& text, const ValueBuffer& value, bool force) {
    int rc;
    if (isStoredPassword(v, text)) {
        // The enciphered record, unchanged: 1 written, 0 unchanged, -1 failed.
        rc = CM_PutDataItemFromString(v.id, text.c_str());
        rc = rc < 0 ? rc : 0;
    } else {
        rc = force ? CM_Set_Variable_CMI(v.id, value.data(), 0) : CM_Set_Variable(v.id, value.data());
    }
    if (rc != 0) throw Failure(v.name + ": the write failed (result " + std::to_string(rc) + ")");
}

void WritePlan::apply(bool force) const {
    requireClean();
    if (!force && !items_.empty()) requireNoDownload();
    for (const Item& i : items_) {
        // A value already held is not written again (a plain password is
        // enciphered afresh each time, so it always is).
        ValueBuffer now;
        const bool plainPassword = i.var->type == DT_PASSWORD && !isStoredPassword(*i.var, i.text);
        if (!plainPassword && CM_Get_Variable(i.var->id, now.data()) == 0 &&
            formatValue(*i.var, now, PasswordForm::Stored) == formatValue(*i.var, i.value, PasswordForm::Stored))
            continue;
        writeValue(*i.var, i.text, i.value, force);
    }
}

}  // namespace cmctl
