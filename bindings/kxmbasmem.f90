! The library's C entries for Fortran, as they are. Sizes are bytes unless said otherwise; addresses are
! type(c_ptr), given to c_f_pointer for use as an array. A request that is refused answers c_null_ptr
! and stops nothing (on the guarded back end it faults). Blocks belong to the caller and follow the rules
! of the C headers: a block of mem_Malign is given back by mem_MalignFree, every other one by mem_Free.
! Any thread may call, unless an entry says otherwise.
!
! Names are those of the entries without regard to case. What is easier to use from Fortran stands beside
! this module: kxm_arrays (arrays instead of addresses), kxm_tracking and kxm_checks.
module kxmbasmem
    use, intrinsic :: iso_c_binding, only: c_bool, c_char, c_double, c_float, c_int, c_int64_t, &
                                           c_ptr, c_size_t
    implicit none
    private

    public :: mem_dlmallinfotype
    public :: mem_malloc, mem_malloc_handled, mem_calloc, mem_realloc, mem_free
    public :: mem_malign, mem_malignfree, mem_release, mem_acquire
    public :: mem_trim, mem_mallopt, mem_footprint, mem_maxfootprint, mem_memorylimit
    public :: mem_fragmentationinfo, mem_errormemorylimit, mem_usingdl, mem_releasememorylock
    public :: mem_nofragmentationinfo
    public :: mem_option_trim, mem_option_unit, mem_option_mapping, mem_option_locks, mem_option_limit
    public :: mem_footprintfromresources, mem_maxfootprintfromresources, mem_dlmallinfo
    public :: mem_tballocator, mem_tbthreadlock, newdeletetinyblock, mem_smallalloc, mem_smallfree
    public :: mem_tracker_enterphase, mem_tracker_exitphase, mem_tracker_printtransaction
    public :: mem_trackerc_currtransactionid, mem_trackerc_enterphase, mem_trackerc_exitphase
    public :: memorycheckeractivate, memorycheckerdeactivate, memorycheckercurrenttransaction
    public :: kxmbasmemcheckeractivate, kxmbasmemcheckerdeactivate, kxmbasmemcheckercurrenttrans
    public :: kxmbasmemorycheckvardp, kxmbasmemorycheckvarsp
    public :: kxmbasmemorycheckvarint, kxmbasmemorycheckvarint64
    public :: kxmbasmemorycheckarrayi, kxmbasmemorycheckarrayp
    public :: kxmbasmemorycheckarrayr, kxmbasmemorycheckarrayd, kxmbasmemorysink
    public :: kxmbaserrorstackreactivate, kxmbaserrorstackdeactivate, kxmbaserrorcategory
    public :: kxmbasalloc_initializec, kxmbasalloc_finalizec, kxmbasmem_formalize
    public :: mem_scanmemory_ifc, kxmbasmemclearstack
    public :: kxmbaswritemsg
    public :: mem_aligned_malloc, mem_aligned_realloc, mem_aligned_free, mem_alignedalloc

    ! Parameters of mem_mallopt, which are the heap's alone.
    integer(c_int), parameter :: mem_option_trim = -1 ! bytes of top above which a release trims
    integer(c_int), parameter :: mem_option_unit = -2 ! bytes asked of the system at once, a power of two
    integer(c_int), parameter :: mem_option_mapping = -3 ! bytes from which a request is mapped alone
    integer(c_int), parameter :: mem_option_locks = -4 ! whether entries take the lock; answers 0 always
    integer(c_int), parameter :: mem_option_limit = -5 ! the memory limit in bytes, 0 for none

    ! Statistics of the heap: bytes, but for the count ordblks.
    type, bind(c) :: mem_dlmallinfotype
        integer(c_int64_t) :: arena, ordblks, hblkhd, usmblks, uordblks, fordblks, keepcost
    end type mem_dlmallinfotype

    interface
        ! A block of `size` bytes, or c_null_ptr.
        type(c_ptr) function mem_malloc(size) bind(c, name="mem_Malloc")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size
        end function mem_malloc

        ! The same; when refused, C++'s new-handler is called once. The answer stays c_null_ptr.
        type(c_ptr) function mem_malloc_handled(size) bind(c, name="mem_Malloc_Handled")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size
        end function mem_malloc_handled

        ! `count` times `size` zeroed bytes. On the aligned back end C's free gives it back, not mem_free.
        type(c_ptr) function mem_calloc(count, size) bind(c, name="mem_Calloc")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: count, size
        end function mem_calloc

        ! The block with a new size, at its address or another. When refused, the answer is c_null_ptr and
        ! the block stays. On the aligned back end a block must not grow.
        type(c_ptr) function mem_realloc(ptr, size) bind(c, name="mem_Realloc")
            import :: c_ptr, c_size_t
            type(c_ptr), value :: ptr
            integer(c_size_t), value :: size
        end function mem_realloc

        ! Gives a block back; c_null_ptr is allowed. The variable keeps the address.
        subroutine mem_free(ptr) bind(c, name="mem_Free")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_free

        ! At a multiple of `alignment`, a power of two. Does not count against the memory limit.
        type(c_ptr) function mem_malign(size, alignment) bind(c, name="mem_Malign")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size, alignment
        end function mem_malign

        subroutine mem_malignfree(ptr) bind(c, name="mem_MalignFree")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_malignfree

        ! Marks in a record of tracking that a block is lent and taken back; no memory is touched.
        subroutine mem_release(ptr) bind(c, name="mem_Release")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_release

        subroutine mem_acquire(ptr) bind(c, name="mem_Acquire")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_acquire

        ! Gives free segments back to the system, keeping `pad` bytes; 1 when something went back.
        integer(c_int) function mem_trim(pad) bind(c, name="mem_Trim")
            import :: c_int, c_size_t
            integer(c_size_t), value :: pad
        end function mem_trim

        ! Sets a parameter of the heap, one of mem_option_*; 1 when it was taken, 0 on other back ends.
        ! Takes no lock: for a moment when no other thread allocates.
        integer(c_int) function mem_mallopt(param, val) bind(c, name="mem_Mallopt")
            import :: c_int, c_size_t
            integer(c_int), value :: param
            integer(c_size_t), value :: val
        end function mem_mallopt

        ! Kibibytes.
        integer(c_size_t) function mem_footprint() bind(c, name="mem_Footprint")
            import :: c_size_t
        end function mem_footprint

        ! Bytes. Outside the heap only as good as it is called often.
        integer(c_size_t) function mem_maxfootprint() bind(c, name="mem_MaxFootprint")
            import :: c_size_t
        end function mem_maxfootprint

        ! Bytes; 0 for none.
        integer(c_size_t) function mem_memorylimit() bind(c, name="mem_MemoryLimit")
            import :: c_size_t
        end function mem_memorylimit

        ! Bytes of the largest free chunk; 0 outside the heap.
        integer(c_size_t) function mem_fragmentationinfo() bind(c, name="mem_FragmentationInfo")
            import :: c_size_t
        end function mem_fragmentationinfo

        ! What the one above answers outside the heap: 0.
        integer(c_size_t) function mem_nofragmentationinfo() bind(c)
            import :: c_size_t
        end function mem_nofragmentationinfo

        ! -1 when the limit refused the latest attempt of any thread to grow, else 0.
        integer(c_int) function mem_errormemorylimit() bind(c, name="mem_ErrorMemoryLimit")
            import :: c_int
        end function mem_errormemorylimit

        ! 1 when the heap is the back end.
        integer(c_int) function mem_usingdl() bind(c, name="mem_usingDL")
            import :: c_int
        end function mem_usingdl

        ! Kibibytes, both.
        integer(c_size_t) function mem_footprintfromresources() &
            bind(c, name="mem_FootprintFromResources")
            import :: c_size_t
        end function mem_footprintfromresources

        integer(c_size_t) function mem_maxfootprintfromresources() &
            bind(c, name="mem_MaxFootprintFromResources")
            import :: c_size_t
        end function mem_maxfootprintfromresources

        subroutine mem_releasememorylock() bind(c, name="mem_ReleaseMemoryLock")
        end subroutine mem_releasememorylock

        type(mem_dlmallinfotype) function mem_dlmallinfo() bind(c, name="mem_DLMallinfo")
            import :: mem_dlmallinfotype
        end function mem_dlmallinfo

        ! Phases of the calling thread, for memory tracking. The text is given with its length, at most
        ! 118, with tracking off too, beyond which the process ends:
        ! call mem_tracker_enterphase(0_c_int, 'assembly', 8_c_int). A print flag other than 0 tells of
        ! it on standard error. With tracking off they do nothing, but the first call of any of these
        ! makes the tracker, over twenty megabytes.
        subroutine mem_tracker_enterphase(print, text, length) bind(c)
            import :: c_char, c_int
            integer(c_int), intent(in) :: print
            character(kind=c_char), intent(in) :: text(*)
            integer(c_int), value :: length
        end subroutine mem_tracker_enterphase

        subroutine mem_tracker_exitphase(print) bind(c)
            import :: c_int
            integer(c_int), intent(in) :: print
        end subroutine mem_tracker_exitphase

        subroutine mem_tracker_printtransaction(text, length) bind(c)
            import :: c_char, c_int
            character(kind=c_char), intent(in) :: text(*)
            integer(c_int), value :: length
        end subroutine mem_tracker_printtransaction

        ! Number of the next transaction; 0 with tracking off.
        integer(c_int) function mem_trackerc_currtransactionid() &
            bind(c, name="mem_TrackerC_CurrTransactionId")
            import :: c_int
        end function mem_trackerc_currtransactionid

        ! The same for a name that ends with c_null_char, always told on standard error; the answer is
        ! mem_trackerc_currtransactionid().
        integer(c_int) function mem_trackerc_enterphase(name) &
            bind(c, name="mem_TrackerC_EnterPhase")
            import :: c_char, c_int
            character(kind=c_char), intent(in) :: name(*)
        end function mem_trackerc_enterphase

        integer(c_int) function mem_trackerc_exitphase() bind(c, name="mem_TrackerC_ExitPhase")
            import :: c_int
        end function mem_trackerc_exitphase

        ! Place holders for a memory checker outside the library. They do nothing; the one with a result
        ! answers 0.
        subroutine memorycheckeractivate() bind(c, name="MemoryCheckerActivate")
        end subroutine memorycheckeractivate

        subroutine memorycheckerdeactivate() bind(c, name="MemoryCheckerDeactivate")
        end subroutine memorycheckerdeactivate

        integer(c_int) function memorycheckercurrenttransaction(unused) &
            bind(c, name="MemoryCheckerCurrentTransaction")
            import :: c_int, c_ptr
            type(c_ptr), value :: unused
        end function memorycheckercurrenttransaction

        subroutine kxmbasmemcheckeractivate() bind(c, name="KXMBasMemCheckerActivate")
        end subroutine kxmbasmemcheckeractivate

        subroutine kxmbasmemcheckerdeactivate() bind(c, name="KXMBasMemCheckerDeactivate")
        end subroutine kxmbasmemcheckerdeactivate

        subroutine kxmbasmemcheckercurrenttrans(unused) bind(c, name="KXMBasMemCheckerCurrentTrans")
            import :: c_ptr
            type(c_ptr), value :: unused
        end subroutine kxmbasmemcheckercurrenttrans

        ! Use the value: a checker that follows undefined values reports it here.
        subroutine kxmbasmemorycheckvardp(value) bind(c, name="KXMBasMemoryCheckVarDP")
            import :: c_double
            real(c_double), intent(in) :: value
        end subroutine kxmbasmemorycheckvardp

        subroutine kxmbasmemorycheckvarsp(value) bind(c, name="KXMBasMemoryCheckVarSP")
            import :: c_float
            real(c_float), intent(in) :: value
        end subroutine kxmbasmemorycheckvarsp

        subroutine kxmbasmemorycheckvarint(value) bind(c, name="KXMBasMemoryCheckVarINT")
            import :: c_int
            integer(c_int), intent(in) :: value
        end subroutine kxmbasmemorycheckvarint

        subroutine kxmbasmemorycheckvarint64(value) bind(c, name="KXMBasMemoryCheckVarINT64")
            import :: c_int64_t
            integer(c_int64_t), intent(in) :: value
        end subroutine kxmbasmemorycheckvarint64

        ! Place holders for arrays of any type, by their address: they do nothing.
        subroutine kxmbasmemorycheckarrayi(values) bind(c, name="KXMBasMemoryCheckArrayI")
            import :: c_ptr
            type(c_ptr), value :: values
        end subroutine kxmbasmemorycheckarrayi

        subroutine kxmbasmemorycheckarrayp(values) bind(c, name="KXMBasMemoryCheckArrayP")
            import :: c_ptr
            type(c_ptr), value :: values
        end subroutine kxmbasmemorycheckarrayp

        subroutine kxmbasmemorycheckarrayr(values) bind(c, name="KXMBasMemoryCheckArrayR")
            import :: c_ptr
            type(c_ptr), value :: values
        end subroutine kxmbasmemorycheckarrayr

        subroutine kxmbasmemorycheckarrayd(values) bind(c, name="KXMBasMemoryCheckArrayD")
            import :: c_ptr
            type(c_ptr), value :: values
        end subroutine kxmbasmemorycheckarrayd

        ! Does nothing: to the compiler the value is used.
        subroutine kxmbasmemorysink(value) bind(c, name="KXMBasMemorySink")
            import :: c_int64_t
            integer(c_int64_t), intent(in) :: value
        end subroutine kxmbasmemorysink

        ! The notice board of failed allocations, on which the library's allocator objects write while it
        ! is active. The category is what the solver is doing, 0 to 16 by the C header's list, not checked.
        ! None of them takes a lock.
        subroutine kxmbaserrorstackreactivate() bind(c, name="KXMBasErrorStackReactivate")
        end subroutine kxmbaserrorstackreactivate

        subroutine kxmbaserrorstackdeactivate() bind(c, name="KXMBasErrorStackDeactivate")
        end subroutine kxmbaserrorstackdeactivate

        subroutine kxmbaserrorcategory(category) bind(c, name="KXMBasErrorCategory")
            import :: c_int
            integer(c_int), value :: category
        end subroutine kxmbaserrorcategory

        ! Start and stop, in matched pairs, on one thread at a time. Loading has started the library
        ! already, so that such a pair changes nothing.
        subroutine kxmbasalloc_initializec() bind(c, name="KXMBasAlloc_initializeC")
        end subroutine kxmbasalloc_initializec

        subroutine kxmbasalloc_finalizec() bind(c, name="KXMBasAlloc_finalizeC")
        end subroutine kxmbasalloc_finalizec

        ! Does nothing; kept for those that call it.
        subroutine kxmbasmem_formalize() bind(c, name="KXMBasMem_formalize")
        end subroutine kxmbasmem_formalize

        ! The tiny block pool. Turned on with a mode other than 0, on the heap alone.
        subroutine mem_tballocator(mode) bind(c, name="mem_TBAllocator")
            import :: c_int
            integer(c_int), value :: mode
        end subroutine mem_tballocator

        subroutine mem_tbthreadlock(on) bind(c, name="mem_TBThreadLock")
            import :: c_bool
            logical(c_bool), value :: on
        end subroutine mem_tbthreadlock

        subroutine newdeletetinyblock(on) bind(c, name="newDeleteTinyBlock")
            import :: c_bool
            logical(c_bool), value :: on
        end subroutine newdeletetinyblock

        ! A block of at most 128 bytes from the pool, on or off. Takes no lock.
        type(c_ptr) function mem_smallalloc(size) bind(c, name="mem_smallalloc")
            import :: c_int, c_ptr
            integer(c_int), intent(in) :: size
        end function mem_smallalloc

        ! Gives such a block back and leaves c_null_ptr.
        subroutine mem_smallfree(ptr) bind(c, name="mem_smallfree")
            import :: c_ptr
            type(c_ptr), intent(inout) :: ptr
        end subroutine mem_smallfree

        ! The detailed report of the first 2 GiB of the address space, on the C standard output.
        subroutine mem_scanmemory_ifc() bind(c)
        end subroutine mem_scanmemory_ifc

        ! Zeroes 4 mebibytes of the stack below the caller, which must be there.
        subroutine kxmbasmemclearstack() bind(c, name="KXMBasMemClearStack")
        end subroutine kxmbasmemclearstack

        ! The aligned back end. Fortran does not tell mem_malign from mem_Malign, so these carry
        ! names of their own here.
        type(c_ptr) function mem_aligned_malloc(size) bind(c, name="mem_malign")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size
        end function mem_aligned_malloc

        type(c_ptr) function mem_aligned_realloc(ptr, size) bind(c, name="mem_realign")
            import :: c_ptr, c_size_t
            type(c_ptr), value :: ptr
            integer(c_size_t), value :: size
        end function mem_aligned_realloc

        subroutine mem_aligned_free(ptr) bind(c, name="mem_free_aligned")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_aligned_free

        type(c_ptr) function mem_alignedalloc(size, alignment) bind(c, name="mem_alignedAlloc")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size, alignment
        end function mem_alignedalloc
    end interface

contains

    ! A line with the first `length` characters of the text to unit 7, which is flushed; an empty line
    ! for 0 and below. Goes to the unit as the program has it open, in order with its own output.
    subroutine kxmbaswritemsg(text, length)
        character(len=*, kind=c_char), intent(in) :: text
        integer(c_int64_t), intent(in) :: length

        interface
            subroutine write_msg(text, length, hidden) bind(c, name="KXMBasWriteMsg")
                import :: c_char, c_int64_t, c_size_t
                character(kind=c_char), intent(in) :: text(*)
                integer(c_int64_t), intent(in) :: length
                integer(c_size_t), value :: hidden
            end subroutine write_msg
        end interface

        call write_msg(text, length, len(text, c_size_t))
    end subroutine kxmbaswritemsg
end module kxmbasmem
