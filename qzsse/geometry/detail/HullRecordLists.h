#pragma once

#include <vector>

namespace qzsse::detail {

// The records of one of the hull's circular lists, from its head (empty for a null head).
template <class Record>
std::vector<Record*> ListOf(Record* head)
{
    std::vector<Record*> out;
    if (Record* r = head) {
        do {
            out.push_back(r);
            r = r->next;
        } while (r != head);
    }
    return out;
}

} // namespace qzsse::detail
