! Vector operations and the sparse matrix-vector product of the conjugate gradients.
!
! The matrix is stored by compressed rows of 3x3 blocks, one row for each node; the indices come from
! C and count from 0. Lengths and row starts have 64 bits, since a matrix outgrows 32 first.
module sparse_kernels
    use, intrinsic :: iso_c_binding, only: c_double, c_int32_t, c_int64_t
    implicit none
    private

    public :: block_product, block_diagonal_inverse, block_diagonal_apply
    public :: vector_dot, vector_axpy, vector_xpby

contains

    ! y = A x
    subroutine block_product(rows, start, column, block, x, y) bind(c, name="block_product")
        integer(c_int32_t), value, intent(in) :: rows
        integer(c_int64_t), intent(in) :: start(0:rows)
        integer(c_int32_t), intent(in) :: column(0:*)
        real(c_double), intent(in) :: block(3, 3, 0:*), x(3, 0:*)
        real(c_double), intent(out) :: y(3, 0:rows - 1)
        real(c_double) :: y1, y2, y3, x1, x2, x3
        integer(c_int64_t) :: k
        integer(c_int32_t) :: row, node

        do row = 0, rows - 1
            y1 = 0.0_c_double
            y2 = 0.0_c_double
            y3 = 0.0_c_double
            do k = start(row), start(row + 1) - 1
                node = column(k)
                x1 = x(1, node)
                x2 = x(2, node)
                x3 = x(3, node)
                y1 = y1 + block(1, 1, k) * x1 + block(1, 2, k) * x2 + block(1, 3, k) * x3
                y2 = y2 + block(2, 1, k) * x1 + block(2, 2, k) * x2 + block(2, 3, k) * x3
                y3 = y3 + block(3, 1, k) * x1 + block(3, 2, k) * x2 + block(3, 3, k) * x3
            end do
            y(1, row) = y1
            y(2, row) = y2
            y(3, row) = y3
        end do
    end subroutine block_product

    ! Inverts the 3x3 blocks on the diagonal. failed is 0, or the number from 1 of a row whose block
    ! is missing or not positive definite.
    subroutine block_diagonal_inverse(rows, start, column, block, inverse, failed) &
        bind(c, name="block_diagonal_inverse")
        integer(c_int32_t), value, intent(in) :: rows
        integer(c_int64_t), intent(in) :: start(0:rows)
        integer(c_int32_t), intent(in) :: column(0:*)
        real(c_double), intent(in) :: block(3, 3, 0:*)
        real(c_double), intent(out) :: inverse(3, 3, 0:rows - 1)
        integer(c_int32_t), intent(out) :: failed
        integer(c_int64_t) :: k
        integer(c_int32_t) :: row
        logical :: positive

        failed = 0
        do row = 0, rows - 1
            positive = .false.
            do k = start(row), start(row + 1) - 1
                if (column(k) == row) call invert(block(:, :, k), inverse(:, :, row), positive)
            end do
            if (.not. positive) then
                failed = row + 1
                return
            end if
        end do
    end subroutine block_diagonal_inverse

    pure subroutine invert(m, inverse, positive)
        real(c_double), intent(in) :: m(3, 3)
        real(c_double), intent(out) :: inverse(3, 3)
        logical, intent(out) :: positive
        real(c_double) :: determinant

        inverse(1, 1) = m(2, 2) * m(3, 3) - m(2, 3) * m(3, 2)
        inverse(1, 2) = m(1, 3) * m(3, 2) - m(1, 2) * m(3, 3)
        inverse(1, 3) = m(1, 2) * m(2, 3) - m(1, 3) * m(2, 2)
        inverse(2, 1) = m(2, 3) * m(3, 1) - m(2, 1) * m(3, 3)
        inverse(2, 2) = m(1, 1) * m(3, 3) - m(1, 3) * m(3, 1)
        inverse(2, 3) = m(1, 3) * m(2, 1) - m(1, 1) * m(2, 3)
        inverse(3, 1) = m(2, 1) * m(3, 2) - m(2, 2) * m(3, 1)
        inverse(3, 2) = m(1, 2) * m(3, 1) - m(1, 1) * m(3, 2)
        inverse(3, 3) = m(1, 1) * m(2, 2) - m(1, 2) * m(2, 1)
        determinant = m(1, 1) * inverse(1, 1) + m(1, 2) * inverse(2, 1) + m(1, 3) * inverse(3, 1)
        positive = m(1, 1) > 0.0_c_double .and. inverse(3, 3) > 0.0_c_double .and. &
                   determinant > 0.0_c_double
        if (positive) inverse = inverse / determinant
    end subroutine invert

    ! z = D r with the inverted blocks D
    subroutine block_diagonal_apply(rows, inverse, r, z) bind(c, name="block_diagonal_apply")
        integer(c_int32_t), value, intent(in) :: rows
        real(c_double), intent(in) :: inverse(3, 3, rows), r(3, rows)
        real(c_double), intent(out) :: z(3, rows)
        integer(c_int32_t) :: i

        do i = 1, rows
            z(:, i) = inverse(:, 1, i) * r(1, i) + inverse(:, 2, i) * r(2, i) + &
                      inverse(:, 3, i) * r(3, i)
        end do
    end subroutine block_diagonal_apply

    pure function vector_dot(n, x, y) bind(c, name="vector_dot") result(total)
        integer(c_int64_t), value, intent(in) :: n
        real(c_double), intent(in) :: x(n), y(n)
        real(c_double) :: total

        total = dot_product(x, y)
    end function vector_dot

    ! y = y + a x
    subroutine vector_axpy(n, a, x, y) bind(c, name="vector_axpy")
        integer(c_int64_t), value, intent(in) :: n
        real(c_double), value, intent(in) :: a
        real(c_double), intent(in) :: x(n)
        real(c_double), intent(inout) :: y(n)

        y = y + a * x
    end subroutine vector_axpy

    ! y = x + b y
    subroutine vector_xpby(n, x, b, y) bind(c, name="vector_xpby")
        integer(c_int64_t), value, intent(in) :: n
        real(c_double), intent(in) :: x(n)
        real(c_double), value, intent(in) :: b
        real(c_double), intent(inout) :: y(n)

        y = x + b * y
    end subroutine vector_xpby

end module sparse_kernels
