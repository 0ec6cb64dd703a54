! Coarse correction of the preconditioner.
!
! The nodes are dealt out to boxes, and each box may move as a rigid body: six unknowns, three shifts
! and three small turns about its centre. Solving the projected problem exactly carries the slow,
! far-reaching part of the error, which a slender body is full of, across the mesh in one step.
!     Z: (box, six modes) -> nodes;  E = Z^T A Z = L L^T;  z = z + Z E^-1 Z^T r
module coarse_kernels
    use, intrinsic :: iso_c_binding, only: c_double, c_f_procpointer, c_funptr, c_int, c_int32_t, &
                                           c_int64_t, c_ptr, c_size_t
    use work_arrays, only: work_array, acquire, release
    implicit none
    private

    public :: coarse_project, coarse_factor, coarse_apply

    abstract interface
        subroutine combine_values(values, count, context) bind(c)
            import :: c_double, c_int32_t, c_ptr
            integer(c_int32_t), value :: count
            real(c_double), intent(inout) :: values(count)
            type(c_ptr), value :: context
        end subroutine combine_values
    end interface

contains

    ! coarse = Z^T A Z of these rows. arm(:, i) is the position of node i seen from the centre of its box;
    ! boxes and arms are those of all columns.
    subroutine coarse_project(rows, start, column, block, box, arm, boxes, coarse) &
        bind(c, name="coarse_project")
        integer(c_int32_t), value, intent(in) :: rows, boxes
        integer(c_int64_t), intent(in) :: start(0:rows)
        integer(c_int32_t), intent(in) :: column(0:*), box(0:*)
        real(c_double), intent(in) :: block(3, 3, 0:*), arm(3, 0:*)
        real(c_double), intent(out) :: coarse(6, 0:boxes - 1, 6, 0:boxes - 1)
        real(c_double) :: left(3, 6), right(3, 6), moved(3)
        integer(c_int64_t) :: k
        integer(c_int32_t) :: row
        integer :: m, n

        coarse = 0.0_c_double
        do row = 0, rows - 1
            call rigid_modes(arm(:, row), left)
            do k = start(row), start(row + 1) - 1
                call rigid_modes(arm(:, column(k)), right)
                do n = 1, 6
                    moved = block(:, 1, k) * right(1, n) + block(:, 2, k) * right(2, n) + &
                            block(:, 3, k) * right(3, n)
                    do m = 1, 6
                        coarse(m, box(row), n, box(column(k))) = &
                            coarse(m, box(row), n, box(column(k))) + dot_product(left(:, m), moved)
                    end do
                end do
            end do
        end do
    end subroutine coarse_project

    pure subroutine rigid_modes(arm, modes)
        real(c_double), intent(in) :: arm(3)
        real(c_double), intent(out) :: modes(3, 6)

        modes = 0.0_c_double
        modes(1, 1) = 1.0_c_double
        modes(2, 2) = 1.0_c_double
        modes(3, 3) = 1.0_c_double
        modes(2, 4) = -arm(3)
        modes(3, 4) = arm(2)
        modes(1, 5) = arm(3)
        modes(3, 5) = -arm(1)
        modes(1, 6) = -arm(2)
        modes(2, 6) = arm(1)
    end subroutine rigid_modes

    ! Cholesky factor in the lower triangle. A box with few nodes has modes that do the same; such a
    ! one leaves no pivot, and is taken out by a zero on the diagonal.
    subroutine coarse_factor(n, a) bind(c, name="coarse_factor")
        integer(c_int32_t), value, intent(in) :: n
        real(c_double), intent(inout) :: a(n, n)
        real(c_double) :: before
        integer :: j, k

        do j = 1, n
            before = a(j, j)
            do k = 1, j - 1
                a(j:n, j) = a(j:n, j) - a(j, k) * a(j:n, k)
            end do
            if (a(j, j) > 1.0e-10_c_double * before) then
                a(j:n, j) = a(j:n, j) / sqrt(a(j, j))
            else
                a(j:n, j) = 0.0_c_double
            end if
        end do
    end subroutine coarse_factor

    ! z = z + Z E^-1 Z^T r; combine adds up Z^T r over the processes. failed is 0, or -1 when no memory
    ! was to be had.
    subroutine coarse_apply(rows, box, arm, boxes, factor, r, z, combine, context, failed) &
        bind(c, name="coarse_apply")
        integer(c_int32_t), value, intent(in) :: rows, boxes
        integer(c_int32_t), intent(in) :: box(rows)
        real(c_double), intent(in) :: arm(3, rows), factor(6 * boxes, 6 * boxes), r(3, rows)
        real(c_double), intent(inout) :: z(3, rows)
        type(c_funptr), value, intent(in) :: combine
        type(c_ptr), value, intent(in) :: context
        integer(c_int), intent(out) :: failed
        procedure(combine_values), pointer :: combine_all
        type(work_array) :: work
        real(c_double), pointer, contiguous :: motion(:)

        failed = -1
        call acquire(work, int(6 * boxes, c_size_t), motion)
        if (.not. associated(motion)) return
        failed = 0
        call restrict_to_boxes(rows, box, arm, boxes, r, motion)
        call c_f_procpointer(combine, combine_all)
        call combine_all(motion, 6 * boxes, context)
        call solve(6 * boxes, factor, motion)
        call prolong(rows, box, arm, boxes, motion, z)
        call release(work)
    end subroutine coarse_apply

    subroutine restrict_to_boxes(rows, box, arm, boxes, r, motion)
        integer(c_int32_t), intent(in) :: rows, boxes, box(rows)
        real(c_double), intent(in) :: arm(3, rows), r(3, rows)
        real(c_double), intent(out) :: motion(6, 0:boxes - 1)
        integer :: i, b

        motion = 0.0_c_double
        do i = 1, rows
            b = box(i)
            motion(1:3, b) = motion(1:3, b) + r(:, i)
            motion(4, b) = motion(4, b) + arm(2, i) * r(3, i) - arm(3, i) * r(2, i)
            motion(5, b) = motion(5, b) + arm(3, i) * r(1, i) - arm(1, i) * r(3, i)
            motion(6, b) = motion(6, b) + arm(1, i) * r(2, i) - arm(2, i) * r(1, i)
        end do
    end subroutine restrict_to_boxes

    subroutine prolong(rows, box, arm, boxes, motion, z)
        integer(c_int32_t), intent(in) :: rows, boxes, box(rows)
        real(c_double), intent(in) :: arm(3, rows), motion(6, 0:boxes - 1)
        real(c_double), intent(inout) :: z(3, rows)
        integer :: i, b

        do i = 1, rows
            b = box(i)
            z(1, i) = z(1, i) + motion(1, b) + motion(5, b) * arm(3, i) - motion(6, b) * arm(2, i)
            z(2, i) = z(2, i) + motion(2, b) + motion(6, b) * arm(1, i) - motion(4, b) * arm(3, i)
            z(3, i) = z(3, i) + motion(3, b) + motion(4, b) * arm(2, i) - motion(5, b) * arm(1, i)
        end do
    end subroutine prolong

    ! Forward and backward substitution by columns; rows without pivot answer zero.
    subroutine solve(n, factor, x)
        integer(c_int32_t), intent(in) :: n
        real(c_double), intent(in) :: factor(n, n)
        real(c_double), intent(inout) :: x(n)
        integer :: j

        do j = 1, n
            if (factor(j, j) > 0.0_c_double) then
                x(j) = x(j) / factor(j, j)
                x(j + 1:n) = x(j + 1:n) - x(j) * factor(j + 1:n, j)
            else
                x(j) = 0.0_c_double
            end if
        end do
        do j = n, 1, -1
            if (factor(j, j) > 0.0_c_double) then
                x(j) = (x(j) - dot_product(factor(j + 1:n, j), x(j + 1:n))) / factor(j, j)
            end if
        end do
    end subroutine solve

end module coarse_kernels
