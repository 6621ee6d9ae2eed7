#pragma once

#include <array>

#include "geom/Point3d.h"
#include "geom/Vector3d.h"

namespace geom
{

// An affine transform of 3D space as a 4 x 4 matrix, row-major; the last row stays 0, 0, 0, 1.
// Points take the translation, vectors do not.
class Matrix3d
{
public:
    constexpr Matrix3d() : m_e{{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}} {}

    static constexpr Matrix3d identity() { return Matrix3d{}; }
    static constexpr Matrix3d translation(const Vector3d& t)
    {
        Matrix3d m;
        m.m_e[0][3] = t.x;
        m.m_e[1][3] = t.y;
        m.m_e[2][3] = t.z;
        return m;
    }
    // From a 3 x 3 linear part stored column-major (row r is c[r], c[r + 3], c[r + 6]) and a translation:
    // the layout in which scans keep their pose.
    static constexpr Matrix3d fromColumnMajor(const std::array<double, 9>& c, const Vector3d& t = {})
    {
        Matrix3d m;
        for (int r = 0; r < 3; ++r)
            for (int col = 0; col < 3; ++col)
                m.m_e[r][col] = c[r + 3 * col];
        m.m_e[0][3] = t.x;
        m.m_e[1][3] = t.y;
        m.m_e[2][3] = t.z;
        return m;
    }

    constexpr double operator()(int row, int col) const { return m_e[row][col]; }
    constexpr double& operator()(int row, int col) { return m_e[row][col]; }

    constexpr Vector3d translationPart() const { return {m_e[0][3], m_e[1][3], m_e[2][3]}; }

    constexpr Point3d transform(const Point3d& p) const
    {
        return {m_e[0][0] * p.x + m_e[0][1] * p.y + m_e[0][2] * p.z + m_e[0][3],
                m_e[1][0] * p.x + m_e[1][1] * p.y + m_e[1][2] * p.z + m_e[1][3],
                m_e[2][0] * p.x + m_e[2][1] * p.y + m_e[2][2] * p.z + m_e[2][3]};
    }
    constexpr Vector3d transform(const Vector3d& v) const
    {
        return {m_e[0][0] * v.x + m_e[0][1] * v.y + m_e[0][2] * v.z,
                m_e[1][0] * v.x + m_e[1][1] * v.y + m_e[1][2] * v.z,
                m_e[2][0] * v.x + m_e[2][1] * v.y + m_e[2][2] * v.z};
    }

    // this * o: o is applied first.
    constexpr Matrix3d operator*(const Matrix3d& o) const
    {
        Matrix3d r;
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j)
            {
                double s = 0.0;
                for (int k = 0; k < 4; ++k)
                    s += m_e[i][k] * o.m_e[k][j];
                r.m_e[i][j] = s;
            }
        return r;
    }

    constexpr bool operator==(const Matrix3d&) const = default;

private:
    std::array<std::array<double, 4>, 4> m_e;
};

}  // namespace geom
