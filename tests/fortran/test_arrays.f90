! Arrays from the library as Fortran code meets them, its checks of data, and phases by name. What goes to the
! standard streams is looked at by the test that starts this program.
program test_arrays
    use, intrinsic :: iso_c_binding
    use, intrinsic :: ieee_arithmetic, only: ieee_quiet_nan, ieee_value
    use kxm_arrays
    use kxm_checks
    use kxm_tracking
    use kxmbasmem
    use test_checks
    implicit none

    call kxm_begin_tracking('unused') ! all of these do nothing without the variable
    call kxm_enter_phase('unused')
    call check(.not. kxm_tracking_on(), 'tracking is off')
    call every_type_and_rank()
    call bounds_and_extents()
    call refusals()
    call reports()
    call kxm_exit_phase()
    call kxm_end_tracking()
    print '(a)', 'all array checks passed'

contains

    ! Filled to the last element, side by side, none disturbs another: their sizes are right.
    subroutine every_type_and_rank()
        real(c_float), pointer :: r4(:), r4c(:, :, :)
        real(c_double), pointer, contiguous :: r8(:, :)
        complex(c_float_complex), pointer :: c4(:, :)
        complex(c_double_complex), pointer :: c8(:, :, :)
        integer(c_int8_t), pointer :: i1(:)
        integer(c_int32_t), pointer :: i4(:, :)
        integer(c_int64_t), pointer :: i8(:)
        logical, pointer :: flags(:)
        integer :: stat(9), i

        do i = 1, 3
            call kxm_allocate(r4, 31, stat(1))
            call kxm_allocate(r8, [3, 5], stat(2))
            call kxm_allocate(c4, [7, 3], stat(3))
            call kxm_allocate(c8, [3, 2, 5], stat(4))
            call kxm_allocate(i1, 77_c_int64_t, stat(5))
            call kxm_allocate(i4, [9, 3], stat(6))
            call kxm_allocate(i8, 19, stat(7))
            call kxm_allocate(flags, 23, stat(8))
            call kxm_allocate(r4c, [3_c_int64_t, 5_c_int64_t, 7_c_int64_t], stat(9))
            call check(all(stat == 0), 'kxm_allocate')
            r4 = 1
            r8 = 2
            c4 = (3, 4)
            c8 = (5, 6)
            i1 = 7_c_int8_t
            i4 = 8
            i8 = 9
            flags = .true.
            r4c = 10
            call check(nint(sum(r4)) == 31 .and. nint(sum(r8)) == 30 .and. all(flags), 'contents')
            call check(all(nint(real(c4)) == 3) .and. all(nint(aimag(c8)) == 6), 'complex contents')
            call check(sum(int(i1)) == 539 .and. sum(i4) == 216 .and. sum(i8) == 171, 'integer contents')
            call check(nint(sum(r4c)) == 1050 .and. all(shape(r4c) == [3, 5, 7]), 'three dimensions')
            call kxm_release(r4)
            call kxm_release(r8)
            call kxm_release(c4)
            call kxm_release(c8)
            call kxm_release(i1)
            call kxm_release(i4)
            call kxm_release(i8)
            call kxm_release(flags)
            call kxm_release(r4c)
            call check(.not. associated(r8), 'kxm_release leaves null')
            call kxm_release(r8) ! and does nothing then
        end do
    end subroutine every_type_and_rank

    subroutine bounds_and_extents()
        real(c_double), pointer :: x(:), k(:, :), t(:, :, :)
        integer(c_int32_t), pointer :: n(:, :, :)
        integer :: stat

        call kxm_allocate(x, 5, stat, lower=-2)
        call check(stat == 0 .and. lbound(x, 1) == -2 .and. ubound(x, 1) == 2, 'bounds, rank 1')
        call kxm_release(x)
        call kxm_allocate(k, [4_c_int64_t, 2_c_int64_t], stat, lower=[0_c_int64_t, -7_c_int64_t])
        call check(all(lbound(k) == [0, -7]) .and. all(ubound(k) == [3, -6]), 'bounds, rank 2')
        k(0, -7) = 1
        call kxm_release(k)
        call kxm_allocate(n, [2, 3, 4], stat, lower=[5, 6, 7])
        call check(all(lbound(n) == [5, 6, 7]) .and. is_contiguous(n), 'bounds, rank 3')
        call kxm_release(n)

        call kxm_allocate(k, [0_c_int64_t, huge(1_c_int64_t)], stat)
        call check(stat == 0 .and. associated(k) .and. size(k) == 0, 'no elements')
        call kxm_release(k)
        call check(.not. associated(k), 'no elements, released')
        call kxm_allocate(t, [3, -1, 3], stat)
        call check(stat == 0 .and. all(shape(t) == [3, 0, 3]), 'an extent below 0')
        call kxm_release(t)
    end subroutine bounds_and_extents

    subroutine refusals()
        integer(c_int8_t), pointer :: bytes(:, :)
        real(c_double), pointer :: x(:), t(:, :, :)
        integer :: stat

        call kxm_allocate(bytes, [2_c_int64_t**60, 2_c_int64_t], stat)
        call check(stat == kxm_refused .and. .not. associated(bytes), 'kxm_refused')
        ! Products that wrap to nothing, to little, and above the largest signed number.
        call kxm_allocate(bytes, [2_c_int64_t**62, 4_c_int64_t], stat)
        call check(stat == kxm_too_large .and. .not. associated(bytes), 'wraps to 0')
        call kxm_allocate(t, [2_c_int64_t**31, 2_c_int64_t**31, 5_c_int64_t], stat)
        call check(stat == kxm_too_large .and. .not. associated(t), 'wraps')
        call kxm_allocate(x, 2_c_int64_t**60, stat)
        call check(stat == kxm_too_large .and. .not. associated(x), 'bytes of elements')
        call kxm_release(x)
    end subroutine refusals

    subroutine reports()
        real(c_double), pointer :: x(:)
        integer(c_int32_t), target :: words(4)
        integer(c_int64_t) :: long
        integer :: stat

        call kxm_allocate(x, 4, stat)
        x = 0
        x(3) = ieee_value(x(3), ieee_quiet_nan)
        call kxm_report_nan('residual', x, 'solver.f90', 12)
        call kxm_release(x)
        words = [1, 77, 1, 77]
        call kxm_report_pattern(c_loc(words), 77_c_int32_t, 15_c_int64_t) ! three words and a half
        call kxm_fill_pattern(c_loc(words), 5_c_int32_t, 16_c_int64_t)    ! not without the variable
        long = 5
        call kxm_report_pattern(c_loc(words), long, 16_c_int64_t)
        print '(a,4(1x,i0))', 'words', words

        call check(mem_trackerc_currtransactionid() == 0, 'no transactions')
        call memorycheckeractivate()
        call check(memorycheckercurrenttransaction(c_null_ptr) == 0, 'checker')
        call kxmbasmemorycheckvardp(1.0_c_double)
        call kxmbasmemorycheckvarint64(long)
        call kxmbaserrorcategory(5)
        call kxmbaserrorstackdeactivate()
        call check(mem_nofragmentationinfo() == 0, 'mem_nofragmentationinfo')
    end subroutine reports
end program test_arrays
