! Heat that spreads in a cube with cold faces: implicit time steps, each solved by conjugate gradients, with
! every array from the library. It shows what a Fortran solver does with it: arrays by kxm_allocate, a memory
! limit, a refusal that is survived and one that ends the run in good order, and the record of a run.
!
!     heat [--cells N] [--steps COUNT] [--limit MIB] [--record NAME]
!
! Snapshots of the temperature are kept while memory lasts: when one is refused, every second of those
! before is given up, and from then on half as many are taken. A limit needs the heap (KXQ_DLALLOCATOR=1).
! Exit status: 0 done; 1 too far from the known solution; 2 wrong call; 4 out of memory.
program heat
    use, intrinsic :: iso_c_binding, only: c_double, c_float, c_size_t
    use, intrinsic :: iso_fortran_env, only: error_unit
    use kxm_arrays
    use kxm_tracking
    use kxmbasmem
    implicit none

    type snapshot
        real(c_float), pointer, contiguous :: t(:, :, :) => null()
        integer :: step = 0
    end type snapshot

    integer, parameter :: done = 0, inexact = 1, wrong_call = 2, out_of_memory = 4
    real(c_double), parameter :: pi = acos(-1.0_c_double), time_step = 0.002_c_double

    integer :: cells = 40, steps = 24, limit_mib = 0, status = done
    character(len=200) :: record = 'heat'
    ! With the faces, which stay at 0: indices from 0 to cells + 1.
    real(c_double), pointer, contiguous :: u(:, :, :) => null(), r(:, :, :) => null()
    real(c_double), pointer, contiguous :: p(:, :, :) => null(), q(:, :, :) => null()
    type(snapshot), allocatable :: kept(:)
    integer :: snapshots = 0, interval = 1, refusals = 0, iterations = 0

    call read_arguments()
    if (status == done) call kxm_begin_tracking(record)
    if (status == done .and. limit_mib > 0) call set_limit()
    if (status == done) call take_work_arrays()
    if (status == done) call run()
    call give_back()
    call kxm_end_tracking()
    stop status, quiet=.true.

contains

    subroutine read_arguments()
        character(len=200) :: name, value
        integer :: i, read_status

        do i = 1, command_argument_count(), 2
            call get_command_argument(i, name)
            call get_command_argument(i + 1, value)
            read_status = merge(0, 1, len_trim(value) > 0)
            select case (name)
            case ('--cells')
                if (read_status == 0) read (value, *, iostat=read_status) cells
            case ('--steps')
                if (read_status == 0) read (value, *, iostat=read_status) steps
            case ('--limit')
                if (read_status == 0) read (value, *, iostat=read_status) limit_mib
            case ('--record')
                record = value
            case default
                read_status = 1
            end select
            if (read_status /= 0 .or. cells < 1 .or. steps < 1 .or. limit_mib < 0) then
                write (error_unit, '(3a)') 'heat: wrong argument: ', trim(name)//' ', trim(value)
                status = wrong_call
                return
            end if
        end do
    end subroutine read_arguments

    ! The first block is taken before a limit is set: a heap without a segment of its own cannot refuse well.
    subroutine set_limit()
        use, intrinsic :: iso_c_binding, only: c_ptr
        type(c_ptr) :: first

        first = mem_malloc(1_c_size_t)
        call mem_free(first)
        if (mem_mallopt(mem_option_limit, limit_mib * 1048576_c_size_t) == 1) return
        write (error_unit, '(a)') 'heat: a limit needs the heap: set KXQ_DLALLOCATOR'
        status = wrong_call
    end subroutine set_limit

    subroutine take_work_arrays()
        integer :: stat, shape(3), first(3)

        call kxm_enter_phase('work arrays')
        allocate (kept(steps))
        shape = cells + 2
        first = 0
        call kxm_allocate(u, shape, stat, lower=first)
        if (stat == 0) call kxm_allocate(r, shape, stat, lower=first)
        if (stat == 0) call kxm_allocate(p, shape, stat, lower=first)
        if (stat == 0) call kxm_allocate(q, shape, stat, lower=first)
        call kxm_exit_phase()
        if (stat == 0) return
        call tell_refusal('the work arrays')
        status = out_of_memory
    end subroutine take_work_arrays

    subroutine tell_refusal(what)
        character(len=*), intent(in) :: what

        write (error_unit, '(3a,i0,a,i0,a)') 'heat: no memory for ', what, ': ', mem_footprint(), &
            ' KiB are held, the limit is ', mem_memorylimit() / 1024, ' KiB'
        if (mem_errormemorylimit() /= 0) write (error_unit, '(a)') 'heat: it was the limit that refused'
    end subroutine tell_refusal

    subroutine run()
        integer :: step
        real(c_double) :: difference

        call start()
        do step = 1, steps
            call kxm_enter_phase('step')
            call advance()
            call kxm_exit_phase()
            if (mod(step, interval) == 0) call keep(step)
        end do
        difference = difference_from_known()
        print '(a,i0,a,i0,a)', 'steps      ', steps, ', ', iterations, ' iterations'
        print '(a,es10.3)', 'difference ', difference
        print '(a,i0,a,i0,a)', 'snapshots  ', snapshots, ', ', refusals, ' refusals'
        if (snapshots > 0) print '(a,f8.5)', 'hottest    ', maxval(kept(snapshots)%t)
        print '(a,f8.1,a)', 'footprint  ', real(mem_maxfootprint()) / 1048576, ' MiB at most'
        if (.not. difference < 1.0e-8_c_double) status = inexact
    end subroutine run

    ! A peak in the middle, of three waves along each axis.
    subroutine start()
        integer :: i, j, k

        r = 0
        p = 0
        q = 0
        do k = 0, cells + 1
            do j = 0, cells + 1
                do i = 0, cells + 1
                    u(i, j, k) = profile(i, 0) * profile(j, 0) * profile(k, 0)
                end do
            end do
        end do
    end subroutine start

    ! The waves at point i, or that of number `wave` alone. The outermost points are faces, and cold.
    real(c_double) pure function profile(i, wave)
        integer, intent(in) :: i, wave
        integer :: w

        profile = 0
        if (i == 0 .or. i == cells + 1) return
        do w = 1, 3
            if (wave == 0 .or. wave == w) &
                profile = profile + sin((2 * w - 1) * pi * i / (cells + 1)) * (-1)**(w + 1) / (2 * w - 1)**2
        end do
    end function profile

    ! One step: (1 - dt laplace) u_new = u, from u itself.
    subroutine advance()
        real(c_double) :: rho, rho_before, alpha, goal
        integer :: i

        goal = 1.0e-24_c_double * inner(u, u)
        call apply(u, q)
        r = u - q
        p = r
        rho = inner(r, r)
        do i = 1, 1000
            if (rho <= goal) exit
            call apply(p, q)
            alpha = rho / inner(p, q)
            u = u + alpha * p
            r = r - alpha * q
            rho_before = rho
            rho = inner(r, r)
            p = r + rho / rho_before * p
            iterations = iterations + 1
        end do
    end subroutine advance

    subroutine apply(x, y)
        real(c_double), intent(in) :: x(0:, 0:, 0:)
        real(c_double), intent(inout) :: y(0:, 0:, 0:)
        real(c_double) :: factor
        integer :: i, j, k

        factor = time_step * real(cells + 1, c_double)**2
        do k = 1, cells
            do j = 1, cells
                do i = 1, cells
                    y(i, j, k) = x(i, j, k) + factor * (6 * x(i, j, k) - x(i - 1, j, k) - x(i + 1, j, k) &
                        - x(i, j - 1, k) - x(i, j + 1, k) - x(i, j, k - 1) - x(i, j, k + 1))
                end do
            end do
        end do
    end subroutine apply

    real(c_double) pure function inner(x, y)
        real(c_double), intent(in) :: x(:, :, :), y(:, :, :)

        inner = sum(x * y)
    end function inner

    ! Keeps the temperature of this step, or makes room for it, or goes on without.
    subroutine keep(step)
        integer, intent(in) :: step
        real(c_float), pointer, contiguous :: t(:, :, :)
        integer :: stat

        call kxm_enter_phase('snapshots')
        call kxm_allocate(t, [cells, cells, cells], stat)
        if (stat /= 0) then
            refusals = refusals + 1
            call tell_refusal('a snapshot')
            call thin_out()
            if (mod(step, interval) == 0) call kxm_allocate(t, [cells, cells, cells], stat)
        end if
        if (stat == 0) then
            t = real(u(1:cells, 1:cells, 1:cells), c_float)
            snapshots = snapshots + 1
            kept(snapshots)%t => t
            kept(snapshots)%step = step
        end if
        call kxm_exit_phase()
    end subroutine keep

    subroutine thin_out()
        integer :: i, left, ignored

        interval = 2 * interval
        left = 0
        do i = 1, snapshots
            if (mod(kept(i)%step, interval) == 0) then
                left = left + 1
                kept(left) = kept(i)
            else
                call kxm_release(kept(i)%t)
            end if
        end do
        do i = left + 1, snapshots
            nullify (kept(i)%t)
        end do
        snapshots = left
        ignored = mem_trim(0_c_size_t) ! what lies free goes back, too
    end subroutine thin_out

    ! Each product of three waves keeps its form and fades at a rate of its own, which is known exactly for
    ! the grid and the step. Largest difference, beside the first peak of 1.5 or so.
    real(c_double) function difference_from_known() result(difference)
        real(c_double) :: known, fade(3, 3, 3), rate(3)
        integer :: i, j, k, a, b, c

        do a = 1, 3
            rate(a) = 4 * real(cells + 1, c_double)**2 * sin((2 * a - 1) * pi / (2 * (cells + 1)))**2
        end do
        do c = 1, 3
            do b = 1, 3
                do a = 1, 3
                    fade(a, b, c) = (1 + time_step * (rate(a) + rate(b) + rate(c)))**(-steps)
                end do
            end do
        end do
        difference = 0
        do k = 1, cells, 3
            do j = 1, cells, 3
                do i = 1, cells, 3
                    known = 0
                    do c = 1, 3
                        do b = 1, 3
                            do a = 1, 3
                                known = known + fade(a, b, c) * profile(i, a) * profile(j, b) * profile(k, c)
                            end do
                        end do
                    end do
                    difference = max(difference, abs(u(i, j, k) - known))
                end do
            end do
        end do
    end function difference_from_known

    ! Whatever is there: a release of what was never had does nothing.
    subroutine give_back()
        integer :: i

        do i = 1, snapshots
            call kxm_release(kept(i)%t)
        end do
        call kxm_release(u)
        call kxm_release(r)
        call kxm_release(p)
        call kxm_release(q)
    end subroutine give_back

end program heat
