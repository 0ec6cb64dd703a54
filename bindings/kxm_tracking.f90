! Memory tracking for Fortran: begins and ends the record of a run and names its phases. All of it does
! nothing, at the price of a call, unless KXA_MEM_TRACK is in the environment; `memtrack` reads the files.
!
!     call kxm_begin_tracking('run1')               ! or ('run1', rank), for a process of several
!     call kxm_enter_phase('assembly')
!     ...
!     call kxm_exit_phase()
!     call kxm_end_tracking()                       ! last of all
!
! Any thread may enter and leave phases, which are its own; the rest is for one thread.
module kxm_tracking
    use, intrinsic :: iso_c_binding, only: c_bool, c_char, c_int, c_null_char
    implicit none
    private

    public :: kxm_tracking_on, kxm_begin_tracking, kxm_end_tracking
    public :: kxm_pause_tracking, kxm_resume_tracking
    public :: kxm_enter_phase, kxm_exit_phase, kxm_print_transaction

    interface
        logical(c_bool) function tracking_on() bind(c, name="kxm_fortran_tracking_on")
            import :: c_bool
        end function tracking_on

        subroutine begin_tracking(name, rank) bind(c, name="kxm_fortran_begin_tracking")
            import :: c_char, c_int
            character(kind=c_char), intent(in) :: name(*)
            integer(c_int), value :: rank
        end subroutine begin_tracking

        subroutine enter_phase(name, print) bind(c, name="kxm_fortran_enter_phase")
            import :: c_char, c_int
            character(kind=c_char), intent(in) :: name(*)
            integer(c_int), value :: print
        end subroutine enter_phase

        subroutine exit_phase(print) bind(c, name="kxm_fortran_exit_phase")
            import :: c_int
            integer(c_int), value :: print
        end subroutine exit_phase

        subroutine print_transaction(text) bind(c, name="kxm_fortran_print_transaction")
            import :: c_char
            character(kind=c_char), intent(in) :: text(*)
        end subroutine print_transaction

        ! Writes what is left of the record. Without it the last events, up to 131072, and the names of the
        ! phases are lost. No other thread may allocate meanwhile, and nothing is recorded from here on.
        ! A folder or file that cannot be written ends the process with a message. A second call does
        ! nothing. File names are UTF-8; a converter that the program registered for them is replaced.
        subroutine kxm_end_tracking() bind(c, name="kxm_fortran_end_tracking")
        end subroutine kxm_end_tracking

        ! Between the two nothing is recorded; the record stays open.
        subroutine kxm_pause_tracking() bind(c, name="kxm_fortran_pause_tracking")
        end subroutine kxm_pause_tracking

        subroutine kxm_resume_tracking() bind(c, name="kxm_fortran_resume_tracking")
        end subroutine kxm_resume_tracking
    end interface

contains

    ! Whether a record is being made; true while it is paused, false after its end.
    logical function kxm_tracking_on()
        kxm_tracking_on = tracking_on()
    end function kxm_tracking_on

    ! Names the files of this process, without trailing blanks: name.memT0 and so on, or with a rank
    ! name.3.memT0, since processes that write under one name destroy each other's files. Call it before
    ! much is allocated: the name counts when the first file is written.
    subroutine kxm_begin_tracking(name, rank)
        character(len=*), intent(in) :: name
        integer, intent(in), optional :: rank
        character(len=12) :: digits

        if (present(rank)) then
            write (digits, '(i0)') rank
            call begin_tracking(trim(name)//'.'//trim(digits)//c_null_char, int(rank, c_int))
        else
            call begin_tracking(trim(name)//c_null_char, 0_c_int)
        end if
    end subroutine kxm_begin_tracking

    ! Enters a phase of the calling thread, of at most 127 characters without trailing blanks; phases nest.
    ! With `print` it is told on standard error. A longer name ends the process while tracking is on.
    subroutine kxm_enter_phase(name, print)
        character(len=*), intent(in) :: name
        logical, intent(in), optional :: print

        call enter_phase(trim(name)//c_null_char, flag(print))
    end subroutine kxm_enter_phase

    ! Leaves the innermost phase of the calling thread.
    subroutine kxm_exit_phase(print)
        logical, intent(in), optional :: print

        call exit_phase(flag(print))
    end subroutine kxm_exit_phase

    ! Tells on standard error the number of the next event behind a text, to find a place in the record.
    subroutine kxm_print_transaction(text)
        character(len=*), intent(in) :: text

        call print_transaction(trim(text)//c_null_char)
    end subroutine kxm_print_transaction

    integer(c_int) function flag(print)
        logical, intent(in), optional :: print

        flag = 0
        if (present(print)) flag = merge(1_c_int, 0_c_int, print)
    end function flag

end module kxm_tracking
