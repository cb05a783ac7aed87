#include "qzsse/base/RyPolyLineOld.h"

RyPolyLineOld::~RyPolyLineOld() { RemoveAllVertices(); }

RyPolyLineOld::Vertex* RyPolyLineOld::AppendVertexTail(const RbVector3f& position)
{
    Vertex* v = new Vertex(position);
    v->m_previous = m_last;
    if (m_last != nullptr)
        m_last->m_next = v;
    else
        m_first = v;
    m_last = v;
    ++m_numVertices;
    m_finished = false;
    return v;
}

void RyPolyLineOld::RemoveAllVertices()
{
    Vertex* v = m_first;
    while (v != nullptr) {
        Vertex* next = v->m_next;
        delete v;
        v = next;
    }
    m_first = m_last = nullptr;
    m_numVertices = 0;
    m_finished = false;
}

float RyPolyLineOld::ComputeArea(const RbVector3f& normal) const
{
    const float normalLength = normal.Length();
    if (m_first == nullptr || normalLength == 0.0f)
        return 0.0f;
    // Newell: the sum of v_i x v_(i+1) over the closed loop is twice the vector area.
    RbVector3f sum;
    for (const Vertex* v = m_first; v != nullptr; v = v->m_next) {
        const Vertex* w = v->m_next != nullptr ? v->m_next : m_first;
        sum = sum + v->m_position.Cross(w->m_position);
    }
    return 0.5f * sum.Dot(normal) / normalLength;
}

int RyPolyLineOld::CheckVertexList() const
{
    if ((m_first == nullptr) != (m_last == nullptr))
        return c_iVertexListBrokenLink;
    if (m_first != nullptr && (m_first->m_previous != nullptr || m_last->m_next != nullptr))
        return c_iVertexListBrokenLink;
    int count = 0;
    const Vertex* previous = nullptr;
    for (const Vertex* v = m_first; v != nullptr; v = v->m_next) {
        if (v->m_previous != previous)
            return c_iVertexListBrokenLink;
        previous = v;
        if (++count > m_numVertices)
            return c_iVertexListCountMismatch;
    }
    if (previous != m_last)
        return c_iVertexListBrokenLink;
    return count == m_numVertices ? c_iVertexListConsistent : c_iVertexListCountMismatch;
}

void RyPolyLineOld::Finish()
{
    int count = 0;
    for (const Vertex* v = m_first; v != nullptr; v = v->m_next)
        ++count;
    m_numVertices = count;
    m_finished = true;
}
