! The entries as a numerical routine uses them: blocks as arrays, sizes by value, results checked.
program test_entries
    use, intrinsic :: iso_c_binding
    use kxmbasmem
    use test_checks
    implicit none

    call blocks_hold_arrays()
    call resizing_keeps_contents()
    call alignment_is_kept()
    call small_blocks_are_packed()
    call refusal_is_null()
    call figures_answer()
    call reports_are_printed()
    call lines_reach_unit_7()
    print '(a)', 'all Fortran checks passed'

contains

    subroutine blocks_hold_arrays()
        real(c_double), pointer :: x(:, :)
        type(c_ptr) :: block
        integer :: i

        block = mem_calloc(200_c_size_t, 8_c_size_t)
        call check(c_associated(block), 'mem_Calloc')
        call c_f_pointer(block, x, [20, 10])
        call check(.not. any(abs(x) > 0), 'mem_Calloc clears')
        x = reshape([(real(i, c_double), i=1, 200)], [20, 10])
        call check(nint(sum(x)) == 20100, 'contents')
        call mem_release(block)
        call mem_acquire(block)
        call mem_free(block)

        block = mem_malloc_handled(80_c_size_t)
        call check(c_associated(block), 'mem_Malloc_Handled')
        call mem_free(block)
        call mem_free(c_null_ptr)
    end subroutine blocks_hold_arrays

    subroutine resizing_keeps_contents()
        integer(c_int), pointer :: n(:)
        type(c_ptr) :: block
        integer :: i

        block = mem_malloc(400_c_size_t)
        call c_f_pointer(block, n, [100])
        n = [(i, i=1, 100)]
        block = mem_realloc(block, 200_c_size_t)
        call c_f_pointer(block, n, [50])
        call check(all(n == [(i, i=1, 50)]), 'mem_Realloc keeps the contents')
        call mem_free(block)

        block = mem_aligned_malloc(400_c_size_t)
        call c_f_pointer(block, n, [100])
        n = [(i, i=1, 100)]
        block = mem_aligned_realloc(block, 200_c_size_t)
        call c_f_pointer(block, n, [50])
        call check(all(n == [(i, i=1, 50)]), 'mem_realign keeps the contents')
        call mem_aligned_free(block)
    end subroutine resizing_keeps_contents

    subroutine alignment_is_kept()
        type(c_ptr) :: block
        integer(c_intptr_t) :: address

        block = mem_malign(1000_c_size_t, 4096_c_size_t)
        address = transfer(block, address)
        call check(c_associated(block) .and. mod(address, 4096_c_intptr_t) == 0, 'mem_Malign')
        call mem_malignfree(block)
        block = mem_alignedalloc(10_c_size_t, 256_c_size_t)
        address = transfer(block, address)
        call check(c_associated(block) .and. mod(address, 256_c_intptr_t) == 0, 'mem_alignedAlloc')
        call mem_aligned_free(block)
    end subroutine alignment_is_kept

    subroutine small_blocks_are_packed()
        integer, parameter :: count = 300
        type(c_ptr) :: blocks(count)
        real(c_double), pointer :: x(:)
        integer(c_intptr_t) :: first, second
        integer :: i

        do i = 1, count
            blocks(i) = mem_smallalloc(24)
            call check(c_associated(blocks(i)), 'mem_smallalloc')
            call c_f_pointer(blocks(i), x, [3])
            x = real(i, c_double)
        end do
        first = transfer(blocks(1), first)
        second = transfer(blocks(2), second)
        call check(second - first == 32, 'slots stand side by side')
        do i = 1, count
            call c_f_pointer(blocks(i), x, [3])
            call check(all(nint(x) == i), 'contents of a small block')
            call mem_smallfree(blocks(i))
            call check(.not. c_associated(blocks(i)), 'mem_smallfree clears the pointer')
        end do
        call mem_tballocator(1) ! stays off without the heap
        call mem_tbthreadlock(.true._c_bool)
        call newdeletetinyblock(.false._c_bool)
    end subroutine small_blocks_are_packed

    subroutine refusal_is_null()
        call check(.not. c_associated(mem_malloc(huge(1_c_size_t) - 100_c_size_t)), 'refusal')
        call check(mem_errormemorylimit() == 0, 'mem_ErrorMemoryLimit')
    end subroutine refusal_is_null

    subroutine figures_answer()
        type(mem_dlmallinfotype) :: info
        integer(c_size_t), parameter :: megabyte = 1048576
        integer(c_size_t) :: before
        type(c_ptr) :: block
        integer(c_int8_t), pointer :: bytes(:)

        before = mem_footprint()
        call check(before > 0, 'mem_Footprint')
        block = mem_malloc(64 * megabyte)
        call c_f_pointer(block, bytes, [64 * megabyte])
        bytes = 1_c_int8_t
        call check(mem_footprint() >= before + 63 * 1024, 'mem_Footprint counts in kibibytes')
        call check(mem_maxfootprint() >= 64 * megabyte, 'mem_MaxFootprint counts in bytes')
        call mem_free(block)
        call check(mem_footprintfromresources() > 0, 'mem_FootprintFromResources')
        call check(mem_maxfootprintfromresources() > 0, 'mem_MaxFootprintFromResources')
        call check(mem_memorylimit() == 0, 'mem_MemoryLimit')
        call check(mem_fragmentationinfo() == 0, 'mem_FragmentationInfo')
        call check(mem_usingdl() == 0, 'mem_usingDL')
        call check(mem_trim(0_c_size_t) == 0, 'mem_Trim')
        call check(mem_mallopt(-1, 0_c_size_t) == 0, 'mem_Mallopt')
        info = mem_dlmallinfo()
        call check(info%arena == 0 .and. info%keepcost == 0, 'mem_DLMallinfo')
        call mem_releasememorylock()
    end subroutine figures_answer

    subroutine reports_are_printed()
        call mem_scanmemory_ifc()
        call kxmbasmemclearstack()
    end subroutine reports_are_printed

    ! In order with the program's own.
    subroutine lines_reach_unit_7()
        character(*), parameter :: name = 'test_entries.unit7', lines(5) = &
            [character(10) :: 'before', 'from it', '', 'abcdefghij', 'after']
        character(20) :: text
        integer :: i, unit

        open (7, file=name, status='replace', action='write')
        write (7, '(a)') 'before'
        call kxmbaswritemsg('from it, cut', 7_c_int64_t)
        call kxmbaswritemsg('negative', -1_c_int64_t)
        call kxmbaswritemsg('abcdefghij', 10_c_int64_t)
        write (7, '(a)') 'after'
        close (7)
        open (newunit=unit, file=name, status='old', action='read')
        do i = 1, size(lines)
            read (unit, '(a)') text
            call check(text == lines(i), 'a line of unit 7')
        end do
        read (unit, '(a)', iostat=i) text
        call check(i < 0, 'the end of unit 7')
        close (unit, status='delete')
    end subroutine lines_reach_unit_7
end program test_entries
